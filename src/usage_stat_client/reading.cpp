// Exported functions that report what the user does inside a book.

#include <string>
#include <utility>

#include "include/usage_stat.h"
#include "src/events/reading_events.h"
#include "src/usage_stat_client/arguments.h"
#include "src/usage_stat_client/statistics_client.h"

using namespace velmora::usage_stat;

int Stat_GoToPageEvent(int16_t a, int16_t c, int16_t d, bool b) {
  GoToPageEvent event;
  event.a_ = a;
  event.b_ = b;
  event.c_ = c;
  event.d_ = d;
  return STAT_SEND(event);
}

// Deliberately not a GoToPageEvent: the wider numbers have a record type of their own.
int Stat_GoToPageEventEx(int a, int16_t b, int c, int d, int e, bool f) {
  GoToPageEventNew event;
  event.a_ = a;
  event.b_ = b;
  event.c_ = c;
  event.d_ = d;
  event.e_ = e;
  event.f_ = f;
  return STAT_SEND(event);
}

int Stat_ChangePageEvent(int a, int16_t b, int c, int d, int e) {
  ChangePageEvent event;
  event.a_ = a;
  event.b_ = b;
  event.c_ = c;
  event.d_ = d;
  event.e_ = e;
  return STAT_SEND(event);
}

// Deliberately does nothing: applications link against it, and collectors know page turns from
// Stat_ChangePageEvent alone.
int Stat_ChangePageEventEx(int, int16_t, int, int, int, char, char, int16_t, int) { return 0; }

int Stat_StartTtsEvent(int16_t a, int b, const char* c, const char* d, int16_t e, int16_t f) {
  StartTtsEvent event(a, b, RequiredText(c), RequiredText(d), e, f);
  return STAT_SEND(event);
}

int Stat_StopTtsEvent(int16_t a) {
  StopTtsEvent event;
  event.a_ = a;
  return STAT_SEND(event);
}

int Stat_AddNoteEvent(int a, int16_t b) {
  AddNoteEvent event;
  event.a_ = a;
  event.b_ = b;
  return STAT_SEND(event);
}

int Stat_UseDictionaryEvent(int a, const char* b) {
  std::string word = RequiredText(b);
  UseDictionaryEvent event;
  event.a_ = a;
  event.b_ = std::move(word);
  return STAT_SEND(event);
}

int Stat_NotesAndBookmarksEvent(int a, int16_t b, int16_t c, int16_t d, int16_t e, int16_t f) {
  NotesAndBookmarksEvent event;
  event.a_ = a;
  event.b_ = b;
  event.c_ = c;
  event.d_ = d;
  event.e_ = e;
  event.f_ = f;
  return STAT_SEND(event);
}

int Stat_UsingTextToolsEvent(int a, int b) {
  UsingTextToolsEvent event;
  event.a_ = a;
  // Deliberately narrowed: the record has 16 bits for it.
  event.b_ = static_cast<std::int16_t>(b);
  return STAT_SEND(event);
}

int Stat_GoToURLEvent(int16_t a, const char* b) {
  GoToURLEvent event;
  event.a_ = a;
  event.b_ = RequiredText(b);
  return STAT_SEND(event);
}
