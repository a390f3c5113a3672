// Contact photos reduced to the phone's box; hostile images are real ones
// patched or cut.

#include <gmock/gmock.h>

#include "FormattingFixture.h"
#include "TestImages.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using test::decodedSize;
using test::makeImage;
using test::Size;

TEST(ImagesTest, EveryFormatIsScaledIntoTheBoxAsJPEG) {
  auto methods = test::makeFormatter();
  const struct {
    const char* format;
    int width, height, wantWidth, wantHeight;
  } cases[] = {
      {"jpeg", 640, 480, 160, 120}, {"png", 300, 600, 60, 120}, {"bmp", 400, 100, 160, 40},
      {"tiff", 320, 240, 160, 120},
      // Smaller than the box: re-encoded at its own size, never enlarged.
      {"png", 50, 30, 50, 30},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format);
    const Data input = makeImage(c.width, c.height, c.format);
    const Value reduced = methods->reduceImage(input, 160, 120, 100);
    ASSERT_TRUE(reduced.isData());
    const Size size = decodedSize(reduced);
    EXPECT_EQ(size.format, "jpeg");
    EXPECT_EQ(size.width, c.wantWidth);
    EXPECT_EQ(size.height, c.wantHeight);
  }
  // Transparent parts are drawn on white.
  const Value flattened = methods->reduceImage(makeImage(100, 100, "png", true), 160, 120, 10);
  EXPECT_EQ(decodedSize(flattened).width, 100);
}

TEST(ImagesTest, UnreadableImagesAreLoggedAndAnsweredAsGiven) {
  auto methods = test::makeFormatter();
  const Data jpeg = makeImage(640, 480, "jpeg");
  const Data png = makeImage(64, 48, "png");

  // Huge declared dimensions: 60000 x 60000 in the JPEG frame header.
  Data hugeJPEG = jpeg;
  auto& bytes = hugeJPEG.mutableBytes();
  for (std::size_t i = 0; i + 8 < bytes.size(); ++i) {
    if (bytes[i] == 0xff && (bytes[i + 1] == 0xc0 || bytes[i + 1] == 0xc2)) {
      bytes[i + 5] = bytes[i + 7] = 0xea;  // 0xea60 = 60000
      bytes[i + 6] = bytes[i + 8] = 0x60;
      break;
    }
  }
  Data truncated(jpeg.bytes().data(), jpeg.length() / 3);
  Data wrongMagic = png;
  wrongMagic.mutableBytes()[1] = 'X';
  Data zeros(std::vector<std::uint8_t>(4096, 0));

  const std::pair<const char*, Data> cases[] = {
      {"huge", hugeJPEG}, {"truncated", truncated}, {"magic", wrongMagic}, {"zeros", zeros}};
  for (const auto& [name, bad] : cases) {
    SCOPED_TRACE(name);
    test::LogCapture log;
    EXPECT_EQ(methods->reduceImage(bad, 160, 120, 10), Value(bad));
    EXPECT_TRUE(log.contains("can't read the image or the context"));
  }
  // The instance still works afterwards.
  EXPECT_EQ(decodedSize(methods->reduceImage(jpeg, 160, 120, 10)).width, 160);

  // Small enough bytes and non-images are answered unchanged, and so is a
  // box too large for a drawing buffer.
  EXPECT_EQ(methods->reduceImage(jpeg, 160, 120, static_cast<int>(jpeg.length())), Value(jpeg));
  EXPECT_TRUE(methods->reduceImage(Value(), 160, 120, 0).isNull());
  EXPECT_EQ(methods->reduceImage(Value("text"), 160, 120, 0), Value("text"));
  test::LogCapture log;
  EXPECT_EQ(methods->reduceImage(png, 100000, 100000, 10), Value(png));
  EXPECT_TRUE(log.contains("No Context"));
}

}  // namespace
}  // namespace pc
