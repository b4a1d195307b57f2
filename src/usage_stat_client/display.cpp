// Exported functions that report how a book is displayed.

#include <string>
#include <utility>

#include "include/usage_stat.h"
#include "src/events/display_events.h"
#include "src/usage_stat_client/arguments.h"
#include "src/usage_stat_client/statistics_client.h"

using namespace velmora::usage_stat;

namespace {

// The four margins in one number, the first in the highest byte. Each is widened with its sign
// first, so a negative one deliberately sets every bit above its own byte: collectors compare the
// packed number as a whole.
std::int32_t PackMargins(const Margins& margins) {
  return static_cast<std::int32_t>(
      WidenedWithSign(margins.margin_1) << 24 | WidenedWithSign(margins.margin_2) << 16 |
      WidenedWithSign(margins.margin_3) << 8 | WidenedWithSign(margins.margin_4));
}

}  // namespace

int Stat_SetReadingModeEvent(int a, int16_t b, Stat_ReadingMode mode, Stat_ScaleType scale,
                             int16_t e, Stat_CropType crop, char g, char h) {
  SetReadingModeEvent event;
  event.a_ = a;
  event.b_ = b;
  event.reading_mode_ = LowByte(mode);
  event.scale_type_ = LowByte(scale);
  event.e_ = e;
  event.crop_type_ = LowByte(crop);
  event.g_ = g;
  event.h_ = h;
  return STAT_SEND(event);
}

int Stat_SetFontParamsEvent(int a, int16_t b, const char* font, char d, char e, int16_t f,
                            struct Margins margins, char g, Stat_LineBreak line_break,
                            Stat_UpdateMode update_mode) {
  std::string font_text = RequiredText(font);
  SetFontParamsEvent event;
  event.a_ = a;
  event.b_ = b;
  event.font_ = std::move(font_text);
  event.d_ = d;
  event.e_ = e;
  event.f_ = f;
  event.packed_margins_ = PackMargins(margins);
  event.g_ = g;
  event.line_break_ = LowByte(line_break);
  event.update_mode_ = LowByte(update_mode);
  return STAT_SEND(event);
}

int Stat_SetFontParamsEventEx(int a, int16_t b, const char* font, char d, char e, char f, int16_t g,
                              const char* h, char i, struct MarginsEx margins, char j, char k,
                              char l, char m) {
  // In braces, which have the texts copied in this order: a null one raises before the next is
  // read.
  SetFontParamsEventEx event{a,
                             b,
                             font,
                             d,
                             e,
                             f,
                             g,
                             h,
                             i,
                             margins.margin_1,
                             margins.margin_2,
                             margins.margin_3,
                             margins.margin_4,
                             margins.margin_5,
                             margins.margin_6,
                             margins.margin_7,
                             margins.margin_8,
                             j,
                             k,
                             l,
                             m};
  return STAT_SEND(event);
}
