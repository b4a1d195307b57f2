// Every event class.

#ifndef EVENTS_EVENTS_H_
#define EVENTS_EVENTS_H_

#include "src/events/application_events.h"  // IWYU pragma: export
#include "src/events/book_events.h"         // IWYU pragma: export
#include "src/events/device_events.h"       // IWYU pragma: export
#include "src/events/display_events.h"      // IWYU pragma: export
#include "src/events/keymapping.h"          // IWYU pragma: export
#include "src/events/new_books_events.h"    // IWYU pragma: export
#include "src/events/reading_events.h"      // IWYU pragma: export
#include "src/events/settings_events.h"     // IWYU pragma: export
#include "src/events/snapshot_events.h"     // IWYU pragma: export

#endif  // EVENTS_EVENTS_H_
