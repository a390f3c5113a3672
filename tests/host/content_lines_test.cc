#include "host/ContentLines.h"

#include <gtest/gtest.h>

namespace pc {
namespace {

// The lines of the first object of `text`.
std::vector<ContentLine> linesOf(std::string_view text, std::vector<ContentProblem>* problems = nullptr) {
  ContentReader reader(text);
  std::optional<ContentObject> object = reader.nextObject();
  if (problems) *problems = reader.problems();
  return object ? object->lines : std::vector<ContentLine>();
}

struct DecodeCase {
  const char* label;
  std::string text;      // one object
  std::string property;  // the line looked at
  std::string value;     // its decoded text
};

class ContentLineDecodeTest : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(ContentLineDecodeTest, ReadsTheValueAPhoneMeant) {
  const DecodeCase& c = GetParam();
  std::vector<ContentProblem> problems;
  const std::vector<ContentLine> lines = linesOf(c.text, &problems);
  auto line = std::find_if(lines.begin(), lines.end(), [&](const ContentLine& l) { return l.name == c.property; });
  ASSERT_NE(line, lines.end());
  std::string problem;
  EXPECT_EQ(decodedText(*line, &problem), c.value);
  EXPECT_EQ(problem, "");
  EXPECT_TRUE(problems.empty()) << problems.front().message;
}

INSTANTIATE_TEST_SUITE_P(
    Phones, ContentLineDecodeTest,
    ::testing::Values(
        DecodeCase{"LFOnly", "BEGIN:VCARD\nVERSION:2.1\nFN:Ana\nEND:VCARD\n", "FN", "Ana"},
        DecodeCase{"CROnly", "BEGIN:VCARD\rVERSION:2.1\rFN:Ana\rEND:VCARD\r", "FN", "Ana"},
        DecodeCase{"FoldKeepsBlankIn21", "BEGIN:VCARD\r\nVERSION:2.1\r\nNOTE:one\r\n two\r\nEND:VCARD\r\n",
                   "NOTE", "one two"},
        DecodeCase{"FoldDropsBlankIn30", "BEGIN:VCARD\r\nVERSION:3.0\r\nNOTE:one\r\n two\r\nEND:VCARD\r\n",
                   "NOTE", "onetwo"},
        DecodeCase{"SoftBreaks",
                   "BEGIN:VCARD\r\nVERSION:2.1\r\nNOTE;ENCODING=QUOTED-PRINTABLE:first=0D=0A=\r\nsec=\r\nond\r\n"
                   "END:VCARD\r\n",
                   "NOTE", "first\r\nsecond"},
        DecodeCase{"UnnamedQuotedPrintableLatin1",
                   "BEGIN:VCARD\r\nVERSION:2.1\r\nN;CHARSET=ISO-8859-1;QUOTED-PRINTABLE:M=FCller;J=F6rg\r\n"
                   "END:VCARD\r\n",
                   "N", "Müller;Jörg"},
        DecodeCase{"ShiftJIS",
                   "BEGIN:VCARD\r\nVERSION:2.1\r\nFN;CHARSET=SHIFT_JIS;ENCODING=QUOTED-PRINTABLE:=93=FA=96=7B\r\n"
                   "END:VCARD\r\n",
                   "FN", "日本"},
        DecodeCase{"Windows1252WithoutCharset", "BEGIN:VCARD\r\nVERSION:2.1\r\nFN:Caf\xe9 \x80\r\nEND:VCARD\r\n",
                   "FN", "Café €"},
        DecodeCase{"UTF8WithoutCharset", "BEGIN:VCARD\r\nVERSION:2.1\r\nFN:Zoë\r\nEND:VCARD\r\n", "FN", "Zoë"},
        DecodeCase{"Base64WithoutBlankLine",
                   "BEGIN:VCARD\r\nVERSION:2.1\r\nPHOTO;ENCODING=BASE64;TYPE=JPEG:SGVs\r\nbG8s\r\nIHBo\r\nb25l\r\n"
                   "X-IRMC-LUID:7\r\nEND:VCARD\r\n",
                   "PHOTO", "Hello, phone"},
        DecodeCase{"Base64IndentedWithBlankLine",
                   "BEGIN:VCARD\r\nVERSION:2.1\r\nPHOTO;BASE64:\r\n    SGVsbG8s\r\n    IHBob25l\r\n\r\nEND:VCARD\r\n",
                   "PHOTO", "Hello, phone"},
        DecodeCase{"Base64In30", "BEGIN:VCARD\r\nVERSION:3.0\r\nPHOTO;ENCODING=b;TYPE=JPEG:SGVsbG8sIH\r\n Bob25l\r\nEND:VCARD\r\n",
                   "PHOTO", "Hello, phone"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(ContentLineTest, ParametersWithAndWithoutNamesAndGroups) {
  const std::vector<ContentLine> lines = linesOf(
      "BEGIN:VCARD\nVERSION:3.0\nTEL;CELL;PREF:1\nitem1.TEL;type=HOME,fax:2\nTEL;TYPE=\"work,voice\":3\nEND:VCARD\n");
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[1].types(), (std::vector<std::string>{"CELL", "PREF"}));
  EXPECT_EQ(lines[2].group, "item1");
  EXPECT_EQ(lines[2].types(), (std::vector<std::string>{"HOME", "FAX"}));
  EXPECT_EQ(lines[3].types(), (std::vector<std::string>{"WORK", "VOICE"}));
}

TEST(ContentLineTest, AMalformedLineIsSkippedWithItsNumberAndTheRestKept) {
  std::vector<ContentProblem> problems;
  const std::vector<ContentLine> lines =
      linesOf("BEGIN:VCARD\r\nVERSION:2.1\r\nthis line has no colon\r\n;:x\r\nFN:Kept\r\nEND:VCARD\r\n", &problems);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].rawValue, "Kept");
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_EQ(problems[0].line, 3u);
  EXPECT_EQ(problems[1].line, 4u);
}

TEST(ContentLineTest, ObjectsNestAndAMissingEndKeepsTheEntry) {
  ContentReader reader("BEGIN:VCALENDAR\nVERSION:1.0\nBEGIN:VEVENT\nSUMMARY:a\nEND:VEVENT\nBEGIN:VTODO\nSUMMARY:b\n");
  std::optional<ContentObject> calendar = reader.nextObject();
  ASSERT_TRUE(calendar);
  ASSERT_EQ(calendar->children.size(), 2u);
  EXPECT_EQ(calendar->children[1].name, "VTODO");
  EXPECT_EQ(calendar->children[1].version, "1.0");
  ASSERT_EQ(reader.problems().size(), 1u);
  EXPECT_EQ(reader.problems()[0].message, "missing END:VTODO");
  EXPECT_FALSE(reader.nextObject());
}

TEST(ContentLineTest, DeepNestingIsCutShort) {
  std::string text;
  for (int i = 0; i < 100000; ++i) text += "BEGIN:X\n";
  ContentReader reader(text);
  EXPECT_TRUE(reader.nextObject());
  EXPECT_FALSE(reader.problems().empty());
}

// Every value a writer makes reads back as it was, whatever its length and
// characters: the soft breaks of quoted-printable never split an escape, and
// folds of plain values fall before blanks.
TEST(ContentWriterTest, WrittenValuesReadBackAtEveryLength) {
  const std::vector<std::string> pieces{"a", "é", " ", "€", "\n", "😀", "=", "b c", ";", "\t"};
  for (std::size_t length = 0; length < 240; ++length) {
    std::string value;
    for (std::size_t i = 0; i < length; ++i) value += pieces[(i * 7 + length) % pieces.size()];
    for (bool plain : {false, true}) {
      std::string written = plain ? std::string(length, 'x') : value;
      if (plain)
        for (std::size_t i = 5; i < written.size(); i += 11) written[i] = ' ';
      ContentWriter out;
      out.begin("VCARD");
      out.line("VERSION", {}, "2.1");
      out.line("NOTE", {{"", "HOME"}}, written);
      out.end("VCARD");
      const std::string& text = out.result();
      std::size_t start = 0;
      while (start < text.size()) {
        const std::size_t end = text.find("\r\n", start);
        const std::string physical = text.substr(start, end - start);
        EXPECT_LE(physical.size(), 76u) << physical;
        start = end + 2;
      }
      const std::vector<ContentLine> lines = linesOf(text);
      ASSERT_EQ(lines.size(), 2u) << text;
      EXPECT_EQ(decodedText(lines[1]), written) << text;
      EXPECT_TRUE(lines[1].hasType("HOME"));
    }
  }
}

TEST(ContentWriterTest, BinaryIsABase64BlockEndedByABlankLine) {
  std::string bytes;
  for (int i = 0; i < 300; ++i) bytes += static_cast<char>(i * 37);
  ContentWriter out;
  out.begin("VCARD");
  out.binary("PHOTO", {{"TYPE", "JPEG"}}, bytes);
  out.line("FN", {}, "After");
  out.end("VCARD");
  EXPECT_NE(out.result().find("\r\n\r\nFN:After"), std::string::npos);
  const std::vector<ContentLine> lines = linesOf(out.result());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(decodedBytes(lines[0]), bytes);
}

// The 3.0 form: text escaped and folded at every length, never inside a
// character, reads back as written; so do quoted parameters, groups and
// binary data on the line itself.
TEST(ContentWriter3Test, WrittenValuesReadBackAtEveryLength) {
  const std::vector<std::string> pieces{"a", "\u00e9", " ", "\u20ac", "\n", "\U0001F600", ";", ",", "\\", "\t"};
  for (std::size_t length = 0; length < 240; ++length) {
    std::string value;
    for (std::size_t i = 0; i < length; ++i) value += pieces[(i * 7 + length) % pieces.size()];
    ContentWriter3 out;
    out.begin("VCARD");
    out.line("", "VERSION", {}, "3.0");
    out.line("item1", "NOTE", {{"TYPE", "HOME,WORK"}, {"X-LABEL", "a:b;c,d \"e\""}}, escapeText(value));
    out.end("VCARD");
    const std::string& text = out.result();
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = text.find("\r\n", start);
      ASSERT_NE(end, std::string::npos);
      EXPECT_LE(end - start, 75u);
      if (start > 0 && text[start] == ' ' && start + 1 < end) {
        EXPECT_NE(static_cast<unsigned char>(text[start + 1]) & 0xC0, 0x80) << "a fold inside a character";
      }
      start = end + 2;
    }
    const std::vector<ContentLine> lines = linesOf(text);
    ASSERT_EQ(lines.size(), 2u) << text;
    EXPECT_EQ(lines[1].group, "item1");
    EXPECT_EQ(unescapeText(decodedText(lines[1])), value) << text;
    EXPECT_EQ(lines[1].types(), (std::vector<std::string>{"HOME", "WORK"}));
    EXPECT_EQ(lines[1].parameter("X-LABEL"), "a:b;c,d e");  // a quote cannot be written
  }
  std::string bytes;
  for (int i = 0; i < 300; ++i) bytes += static_cast<char>(i * 37);
  ContentWriter3 out;
  out.begin("VCARD");
  out.line("", "VERSION", {}, "3.0");
  out.binary("", "PHOTO", {{"TYPE", "JPEG"}}, bytes);
  out.line("", "FN", {}, "After");
  out.end("VCARD");
  const std::vector<ContentLine> lines = linesOf(out.result());
  ASSERT_EQ(lines.size(), 3u) << out.result();
  EXPECT_EQ(decodedBytes(lines[1]), bytes);
  EXPECT_EQ(lines[2].rawValue, "After");
}

TEST(ContentValueTest, StructuredValuesAndEncodings) {
  EXPECT_EQ(splitStructured("a;b\\;c;;"), (std::vector<std::string>{"a", "b;c", "", ""}));
  EXPECT_EQ(splitStructured(joinComponents({"x\\;", "", "y"})), (std::vector<std::string>{"x\\;", "", "y"}));
  EXPECT_EQ(unescapeText("a\\nb\\, c\\\\"), "a\nb, c\\");
  // A NUL in a value is a character like any other, not where the text ends.
  EXPECT_EQ(unescapeText(std::string_view("a\0b\\;", 5)), std::string("a\0b;", 4));
  EXPECT_EQ(quotedPrintableDecode("a=3Db=ZZ="), "a=b=ZZ=");
  for (std::string bytes : {"", "f", "fo", "foo", "foob"}) EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
  EXPECT_FALSE(base64Decode("ab!c"));
}

}  // namespace
}  // namespace pc
