// Must not compile: a field without its meaning. The build says what is missing.

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

struct Forgetful : Event {
  static constexpr auto Fields() {
#ifdef LACKS_Meaning
    return std::tuple{Field {
      "page",
      Int16{},
      &Forgetful::page_,
      Meaning {
        Kind::kPage,
        "a page"
      }
    }};
#else
    return std::tuple{Field{"page", Int16{}, &Forgetful::page_}};
#endif
  }

  std::int16_t page_;
};

auto fields = Forgetful::Fields();

}  // namespace velmora::usage_stat
