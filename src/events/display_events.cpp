#include "src/events/display_events.h"

namespace velmora::usage_stat {

SetFontParamsEventEx::SetFontParamsEventEx(std::int32_t a, std::int16_t b, const std::string& font,
                                           char d, char e, char f, std::int16_t g,
                                           const std::string& h, char i,
                                           const std::string& margin_1, const std::string& margin_2,
                                           const std::string& margin_3, const std::string& margin_4,
                                           const std::string& margin_5, const std::string& margin_6,
                                           const std::string& margin_7, const std::string& margin_8,
                                           char j, char k, char l, char m)
    : Event(EventFactory::kSetFontParamsEx),
      a_(a),
      b_(b),
      font_(font),
      d_(d),
      e_(e),
      f_(f),
      g_(g),
      h_(h),
      i_(i),
      margin_1_(margin_1),
      margin_2_(margin_2),
      margin_3_(margin_3),
      margin_4_(margin_4),
      margin_5_(margin_5),
      margin_6_(margin_6),
      margin_7_(margin_7),
      margin_8_(margin_8),
      j_(j),
      k_(k),
      l_(l),
      m_(m) {}

}  // namespace velmora::usage_stat
