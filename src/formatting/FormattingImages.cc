// Contact photos: reduceImage decodes any format gdk-pixbuf reads (JPEG, PNG,
// GIF, BMP, TIFF), scales it to fit the phone's box keeping its proportions,
// draws it into the instance's drawing buffer and encodes it as JPEG (the
// "public.jpeg" type phones expect for contact photos).
//
// The decoder is told the final size as soon as the image's header is read
// (the loader's "size-prepared" signal), so a large JPEG is decoded at a
// reduced scale instead of at full size. An image whose header declares more
// pixels than kMaxDeclaredPixels is refused at that point, before any pixel
// memory is allocated. Whatever cannot be read is logged and answered as the
// input bytes.

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "async/Log.h"
#include "formatting/FormattingMethodsPrivate.h"

namespace pc {

namespace {

// 8192 x 8192: far beyond any photo a phone shows, small enough that the
// decoders never allocate more than a few hundred megabytes.
constexpr std::int64_t kMaxDeclaredPixels = std::int64_t(8192) * 8192;
// The drawing buffer of one phone model never needs to be larger than this.
constexpr int kMaxContextSide = 4096;
// Bytes handed to the decoder at a time, so that a refused header stops the
// work early.
constexpr std::size_t kChunk = 64 * 1024;

struct SizeRequest {
  int maxWidth;
  int maxHeight;
  bool refused = false;
};

void onSizePrepared(GdkPixbufLoader* loader, int width, int height, gpointer data) {
  auto* request = static_cast<SizeRequest*>(data);
  if (width <= 0 || height <= 0 ||
      static_cast<std::int64_t>(width) * height > kMaxDeclaredPixels) {
    // A zero size makes the decoders stop with an error before allocating.
    request->refused = true;
    gdk_pixbuf_loader_set_size(loader, 0, 0);
    return;
  }
  const double scale = std::min(static_cast<double>(request->maxWidth) / width,
                                static_cast<double>(request->maxHeight) / height);
  if (scale >= 1) return;
  const int w = std::clamp(static_cast<int>(std::lround(width * scale)), 1, request->maxWidth);
  const int h = std::clamp(static_cast<int>(std::lround(height * scale)), 1, request->maxHeight);
  gdk_pixbuf_loader_set_size(loader, w, h);
}

// Whether a JPEG stream ends its last scan: the JPEG decoder fills a
// truncated image with grey instead of failing, so the end-of-image marker
// must follow the last start-of-scan marker (neither can occur inside the
// entropy-coded data, where 0xff is always followed by 0 or a restart code).
bool jpegIsComplete(const Data& bytes) {
  const std::vector<std::uint8_t>& b = bytes.bytes();
  std::size_t lastScan = 0;
  bool ended = false;
  for (std::size_t i = 0; i + 1 < b.size(); ++i) {
    if (b[i] != 0xff) continue;
    if (b[i + 1] == 0xda) {
      lastScan = i;
      ended = false;
    } else if (b[i + 1] == 0xd9 && lastScan) {
      ended = true;
    }
  }
  return ended;
}

bool isJPEG(GdkPixbufLoader* loader) {
  GdkPixbufFormat* format = gdk_pixbuf_loader_get_format(loader);
  if (!format) return false;
  gchar* name = gdk_pixbuf_format_get_name(format);
  const bool jpeg = name && std::strcmp(name, "jpeg") == 0;
  g_free(name);
  return jpeg;
}

// The decoded image, already reduced to fit maxWidth x maxHeight; nullptr
// when the bytes cannot be read.
GdkPixbuf* decodeReduced(const Data& bytes, int maxWidth, int maxHeight) {
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
  SizeRequest request{maxWidth, maxHeight};
  g_signal_connect(loader, "size-prepared", G_CALLBACK(onSizePrepared), &request);
  bool ok = true;
  for (std::size_t offset = 0; ok && offset < bytes.length() && !request.refused; offset += kChunk) {
    const std::size_t length = std::min(kChunk, bytes.length() - offset);
    ok = gdk_pixbuf_loader_write(loader, bytes.bytes().data() + offset, length, nullptr);
  }
  // Closing reports a truncated image; the loader is closed in every case.
  ok = gdk_pixbuf_loader_close(loader, nullptr) && ok && !request.refused;
  if (ok && isJPEG(loader)) ok = jpegIsComplete(bytes);
  GdkPixbuf* image = ok ? gdk_pixbuf_loader_get_pixbuf(loader) : nullptr;
  if (image) g_object_ref(image);
  g_object_unref(loader);
  if (!image) return nullptr;
  // Decoders that cannot scale themselves leave the loader to do it; make
  // sure of the box whatever happened.
  const int w = gdk_pixbuf_get_width(image), h = gdk_pixbuf_get_height(image);
  if (w > maxWidth || h > maxHeight) {
    const double scale = std::min(static_cast<double>(maxWidth) / w, static_cast<double>(maxHeight) / h);
    GdkPixbuf* scaled = gdk_pixbuf_scale_simple(
        image, std::clamp(static_cast<int>(std::lround(w * scale)), 1, maxWidth),
        std::clamp(static_cast<int>(std::lround(h * scale)), 1, maxHeight), GDK_INTERP_BILINEAR);
    g_object_unref(image);
    image = scaled;
  }
  return image;
}

}  // namespace

void FormattingMethods::releaseContext() {
  if (reserved->context) g_object_unref(reserved->context);
  reserved->context = nullptr;
  std::vector<std::uint8_t>().swap(reserved->contextMemory);
  reserved->contextWidth = reserved->contextHeight = 0;
}

bool FormattingMethods::_setupContextWithWidth(int width, int height) {
  if (!reserved->contextMemory.empty()) {
    detail::checkCondition(false, "NULL==_contextMemory", __PRETTY_FUNCTION__, __LINE__);
    releaseContext();
  }
  if (width <= 0 || height <= 0 || width > kMaxContextSide || height > kMaxContextSide) {
    QVT_LOG(kLogError, logDomain(), "No Context");
    return false;
  }
  try {
    reserved->contextMemory.assign(static_cast<std::size_t>(width) * height * 4, 0);
  } catch (const std::bad_alloc&) {
    QVT_LOG(kLogError, logDomain(), "No memory");
    return false;
  }
  // RGB with a fourth byte per pixel that the JPEG encoder skips.
  reserved->context = gdk_pixbuf_new_from_data(reserved->contextMemory.data(), GDK_COLORSPACE_RGB,
                                               TRUE, 8, width, height, width * 4, nullptr, nullptr);
  if (!reserved->context) {
    std::vector<std::uint8_t>().swap(reserved->contextMemory);
    QVT_LOG(kLogError, logDomain(), "No Context");
    return false;
  }
  reserved->contextWidth = width;
  reserved->contextHeight = height;
  return true;
}

Value FormattingMethods::reduceImage(const Value& image, int maxWidth, int maxheight,
                                     int maxLength) {
  const Data* bytes = image.asData();
  if (!bytes || static_cast<std::int64_t>(bytes->length()) <= maxLength) return image;
  if (reserved->contextWidth != maxWidth || reserved->contextHeight != maxheight) {
    releaseContext();
    if (!_setupContextWithWidth(maxWidth, maxheight)) {
      QVT_LOG(kLogError, logDomain(), "can't read the image or the context");
      return image;
    }
  }
  GdkPixbuf* decoded = decodeReduced(*bytes, maxWidth, maxheight);
  if (!decoded) {
    QVT_LOG(kLogError, logDomain(), "can't read the image or the context");
    return image;
  }
  const int w = gdk_pixbuf_get_width(decoded), h = gdk_pixbuf_get_height(decoded);
  // Transparent parts come out white, as on the phone's screen.
  gdk_pixbuf_fill(reserved->context, 0xffffffffu);
  gdk_pixbuf_composite(decoded, reserved->context, 0, 0, w, h, 0, 0, 1, 1, GDK_INTERP_NEAREST, 255);
  g_object_unref(decoded);
  GdkPixbuf* drawn = gdk_pixbuf_new_subpixbuf(reserved->context, 0, 0, w, h);
  gchar* jpeg = nullptr;
  gsize length = 0;
  const bool saved = drawn && gdk_pixbuf_save_to_buffer(drawn, &jpeg, &length, "jpeg", nullptr,
                                                        "quality", "85", nullptr);
  if (drawn) g_object_unref(drawn);
  if (!saved) {
    QVT_LOG(kLogError, logDomain(), "cannot create imageDest");
    return image;
  }
  Data result(jpeg, length);
  g_free(jpeg);
  return result;
}

}  // namespace pc
