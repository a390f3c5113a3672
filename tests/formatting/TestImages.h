#pragma once
// Images drawn with gdk-pixbuf for the photo tests, and the size and format
// an encoded image decodes to.

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/Value.h"

namespace pc::test {

// A width x height image in `format` ("jpeg", "png", "bmp", "tiff"): a
// gradient, so that encoders cannot shrink it to nothing; a JPEG at `quality`
// when given.
inline Data makeImage(int width, int height, const char* format, bool alpha = false,
                      const char* quality = nullptr) {
  GdkPixbuf* pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, alpha, 8, width, height);
  const int channels = gdk_pixbuf_get_n_channels(pixbuf), stride = gdk_pixbuf_get_rowstride(pixbuf);
  guchar* pixels = gdk_pixbuf_get_pixels(pixbuf);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      guchar* p = pixels + y * stride + x * channels;
      p[0] = static_cast<guchar>(x * 255 / width);
      p[1] = static_cast<guchar>(y * 255 / height);
      p[2] = static_cast<guchar>((x ^ y) & 0xff);
      if (alpha) p[3] = x < width / 2 ? 0 : 255;
    }
  gchar* buffer = nullptr;
  gsize length = 0;
  EXPECT_TRUE(quality
                  ? gdk_pixbuf_save_to_buffer(pixbuf, &buffer, &length, format, nullptr, "quality", quality, nullptr)
                  : gdk_pixbuf_save_to_buffer(pixbuf, &buffer, &length, format, nullptr, nullptr));
  g_object_unref(pixbuf);
  Data data(buffer, length);
  g_free(buffer);
  return data;
}

struct Size {
  int width = 0, height = 0;
  std::string format;
};

inline Size decodedSize(const Value& image) {
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
  gdk_pixbuf_loader_write(loader, image.data().bytes().data(), image.data().length(), nullptr);
  gdk_pixbuf_loader_close(loader, nullptr);
  Size size;
  if (GdkPixbuf* pixbuf = gdk_pixbuf_loader_get_pixbuf(loader)) {
    size.width = gdk_pixbuf_get_width(pixbuf);
    size.height = gdk_pixbuf_get_height(pixbuf);
  }
  if (GdkPixbufFormat* format = gdk_pixbuf_loader_get_format(loader)) {
    gchar* name = gdk_pixbuf_format_get_name(format);
    size.format = name;
    g_free(name);
  }
  g_object_unref(loader);
  return size;
}

}  // namespace pc::test
