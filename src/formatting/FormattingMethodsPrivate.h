#pragma once
// State a FormattingMethods instance keeps for itself: the junk set of
// ordinary phones, the image drawing buffer and the phone's time zone.

#include <cstdint>
#include <vector>

#include "formatting/FormattingMethods.h"

typedef struct _GdkPixbuf GdkPixbuf;

namespace pc {

struct FormattingMethods::Reserved {
  // Everything but digits, 'p', '*' and '#'.
  CharacterSet junk;
  // The drawing buffer: width x height pixels of 4 bytes (RGB, a fourth byte
  // unused), and the image wrapped around it.
  std::vector<std::uint8_t> contextMemory;
  GdkPixbuf* context = nullptr;
  int contextWidth = 0;
  int contextHeight = 0;
  TimeZonePtr phoneTimeZone;
};

}  // namespace pc
