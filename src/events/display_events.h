// How a book is displayed: reading mode and font.

#ifndef EVENTS_DISPLAY_EVENTS_H_
#define EVENTS_DISPLAY_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

inline constexpr Meaning kMargin{Kind::kText, Sensitivity::kContent, "a margin, as text"};

class SetReadingModeEvent : public Event {
 public:
  SetReadingModeEvent() : Event(EventFactory::kSetReadingMode) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &SetReadingModeEvent::a_, kBook},
        Field{"b", Int16{}, &SetReadingModeEvent::b_, kOwn},
        Field{
            "reading_mode", Char{}, &SetReadingModeEvent::reading_mode_,
            Meaning{Kind::kReadingMode, Sensitivity::kInteraction, "how pages follow one another"}},
        Field{"scale_type", Char{}, &SetReadingModeEvent::scale_type_,
              Meaning{Kind::kScaleType, Sensitivity::kInteraction, "what a page is fitted to"}},
        Field{"e", Int16{}, &SetReadingModeEvent::e_, kOwn},
        Field{"crop_type", Char{}, &SetReadingModeEvent::crop_type_,
              Meaning{Kind::kCropType, Sensitivity::kInteraction, "whether margins are cut off"}},
        Field{"g", Char{}, &SetReadingModeEvent::g_, kOwn},
        Field{"h", Char{}, &SetReadingModeEvent::h_, kOwn},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
  char reading_mode_ = 0;
  char scale_type_ = 0;
  std::int16_t e_ = 0;
  char crop_type_ = 0;
  char g_ = 0;
  char h_ = 0;
};

// Font parameters with the four margins packed into one number. `e_` is stored and never travels:
// the record has no place for it, and a reader must not expect one.
class SetFontParamsEvent : public Event {
 public:
  SetFontParamsEvent() : Event(EventFactory::kSetFontParams) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &SetFontParamsEvent::a_, kBook},
        Field{"b", Int16{}, &SetFontParamsEvent::b_, kOwn},
        Field{"font", String{}, &SetFontParamsEvent::font_,
              Meaning{Kind::kText, Sensitivity::kContent, "name of the font"}},
        Field{"d", Char{}, &SetFontParamsEvent::d_, kOwn},
        Field{"f", Int16{}, &SetFontParamsEvent::f_, kOwn},
        Field{"packed_margins", Int32{}, &SetFontParamsEvent::packed_margins_,
              Meaning{Kind::kPackedMargins, Sensitivity::kInteraction,
                      "four margins, -128 to 127 each; a negative one hides those before it"}},
        Field{"g", Char{}, &SetFontParamsEvent::g_, kOwn},
        Field{"line_break", Char{}, &SetFontParamsEvent::line_break_,
              Meaning{Kind::kLineBreak, Sensitivity::kInteraction, "how lines are broken"}},
        Field{"update_mode", Char{}, &SetFontParamsEvent::update_mode_,
              Meaning{Kind::kUpdateMode, Sensitivity::kInteraction,
                      "how the screen is refreshed at a page turn"}},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
  std::string font_;
  char d_ = 0;
  char e_ = 0;
  std::int16_t f_ = 0;
  std::int32_t packed_margins_ = 0;
  char g_ = 0;
  char line_break_ = 0;
  char update_mode_ = 0;
};

// Font parameters with eight margin texts. As above, `e_` is stored and never travels.
class SetFontParamsEventEx : public Event {
 public:
  SetFontParamsEventEx() : Event(EventFactory::kSetFontParamsEx) {}
  SetFontParamsEventEx(std::int32_t a, std::int16_t b, const std::string& font, char d, char e,
                       char f, std::int16_t g, const std::string& h, char i,
                       const std::string& margin_1, const std::string& margin_2,
                       const std::string& margin_3, const std::string& margin_4,
                       const std::string& margin_5, const std::string& margin_6,
                       const std::string& margin_7, const std::string& margin_8, char j, char k,
                       char l, char m);
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &SetFontParamsEventEx::a_, kBook},
        Field{"b", Int16{}, &SetFontParamsEventEx::b_, kOwn},
        Field{"font", String{}, &SetFontParamsEventEx::font_,
              Meaning{Kind::kText, Sensitivity::kContent, "name of the font"}},
        Field{"d", Char{}, &SetFontParamsEventEx::d_, kOwn},
        Field{"f", Char{}, &SetFontParamsEventEx::f_, kOwn},
        Field{"g", Int16{}, &SetFontParamsEventEx::g_, kOwn},
        Field{"h", String{}, &SetFontParamsEventEx::h_, kOwn},
        Field{"i", Char{}, &SetFontParamsEventEx::i_, kOwn},
        Field{"margin_1", String{}, &SetFontParamsEventEx::margin_1_, kMargin},
        Field{"margin_2", String{}, &SetFontParamsEventEx::margin_2_, kMargin},
        Field{"margin_3", String{}, &SetFontParamsEventEx::margin_3_, kMargin},
        Field{"margin_4", String{}, &SetFontParamsEventEx::margin_4_, kMargin},
        Field{"margin_5", String{}, &SetFontParamsEventEx::margin_5_, kMargin},
        Field{"margin_6", String{}, &SetFontParamsEventEx::margin_6_, kMargin},
        Field{"margin_7", String{}, &SetFontParamsEventEx::margin_7_, kMargin},
        Field{"margin_8", String{}, &SetFontParamsEventEx::margin_8_, kMargin},
        Field{"j", Char{}, &SetFontParamsEventEx::j_, kOwn},
        Field{"k", Char{}, &SetFontParamsEventEx::k_, kOwn},
        Field{"l", Char{}, &SetFontParamsEventEx::l_, kOwn},
        Field{"m", Char{}, &SetFontParamsEventEx::m_, kOwn},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
  std::string font_;
  char d_ = 0;
  char e_ = 0;
  char f_ = 0;
  std::int16_t g_ = 0;
  std::string h_;
  char i_ = 0;
  std::string margin_1_;
  std::string margin_2_;
  std::string margin_3_;
  std::string margin_4_;
  std::string margin_5_;
  std::string margin_6_;
  std::string margin_7_;
  std::string margin_8_;
  char j_ = 0;
  char k_ = 0;
  char l_ = 0;
  char m_ = 0;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_DISPLAY_EVENTS_H_
