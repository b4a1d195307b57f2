// One table of records for all tests: their bytes, written by hand from the layout, and the call
// that must produce them.

#ifndef USAGE_STAT_TESTS_LIBRARY_GOLDEN_RECORDS_H_
#define USAGE_STAT_TESTS_LIBRARY_GOLDEN_RECORDS_H_

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "include/usage_stat.h"

namespace usage_stat_test {

// ---- The layout, one value at a time ----

inline std::string Little(std::uint64_t value, int size) {
  std::string bytes;
  for (; size > 0; --size, value >>= 8) bytes += static_cast<char>(value & 0xFF);
  return bytes;
}
inline std::string Ch(int value) { return Little(static_cast<std::uint64_t>(value), 1); }
inline std::string I16(int value) { return Little(static_cast<std::uint64_t>(value), 2); }
inline std::string I32(int value) { return Little(static_cast<std::uint64_t>(value), 4); }
inline std::string Text(const std::string& text) { return Little(text.size(), 4) + text; }
inline std::string Texts(const std::vector<std::string>& texts) {
  std::string bytes = Little(texts.size(), 4);
  for (const std::string& text : texts) bytes += Text(text);
  return bytes;
}
inline std::string NoText(int count) { return std::string(4 * static_cast<std::size_t>(count), 0); }

// ---- Arguments ----

template <class Enum>
Enum Any(int value) {
  return static_cast<Enum>(value);
}

inline constexpr const char* kFirstList[] = {"x", nullptr, "y", nullptr};
inline constexpr const char* kSecondList[] = {"p", "", nullptr};
inline constexpr Stat_BookInfo kFullBook = {-5,          "en_US", kFirstList, ".epub",
                                            kSecondList, 70000,   -32768,     "a.epub",
                                            "s1",        "s2",    "978",      "s3"};
inline constexpr Stat_BookInfo kBareBook = {};
inline constexpr const Stat_BookInfo* kTwoBooks[] = {&kFullBook, &kBareBook};
inline constexpr const Stat_BookInfo* kBrokenOff[] = {&kFullBook, nullptr, &kBareBook};
inline constexpr const char* kUnknownBooks[] = {"/no/a.epub", "/no/b.fb2.zip", nullptr, "/no/c"};

inline int LaunchByPath(int process_id, const char* path, std::vector<const char*> arguments) {
  arguments.push_back(nullptr);
  return Stat_StartApplicationByPathEvent(process_id, path, 0, arguments.data());
}

// ---- The table ----

struct GoldenRecord {
  int code;
  std::string event_class;  // the class that writes the payload
  std::string payload;
  std::string signature = {};  // of the exported function that sends it, as log lines spell it
  int (*send)() = nullptr;
  bool readable = true;  // whether the class that is made for `code` can read it
};

inline const std::string kFullBookBytes =
    I32(-5) + "en" + Texts({"x"}) + Text(".epub") + Texts({"p", ""}) + I32(70000) + I16(-32768) +
    Text("a.epub") + Text("s1") + Text("s2") + Text("978") + Text("s3");

inline std::vector<GoldenRecord> GoldenRecords() {
  const std::string bare_book =
      I32(0) + std::string(2, 0) + Texts({}) + Text("") + Texts({}) + I32(0) + I16(0) + NoText(5);
  const auto unknown_book = [](int id, const char* type, const char* name) {
    return I32(id) + std::string(2, 0) + Texts({""}) + Text(type) +
           Texts(std::vector<std::string>(10)) + I32(0) + I16(0) + Text(name) + NoText(4);
  };
  const std::string no_keys = I16(3) + I16(0) + I16(0) + I16(1) + I16(0) + I16(2) + I16(0);
  const std::string keys = I16(3) + I16(0) + I16(2) + Ch(31) + Ch(0) + I16(62) + Ch(31) + Ch(1) +
                           I16(1) + I16(1) + I16(0) + I16(2) + I16(1) + Ch(0) + Ch(0) + I16(-1);
  const std::string device =
      "0123456789abcdef" + std::string(4, 0) + I16(-606) + Text("varsk") + Text("00ff");
  static constexpr char kHigh = static_cast<char>(0x80);

  const std::string orientation = "int Stat_SendOrientationEvent(int)";
  const std::string start =
      "int Stat_StartApplicationEvent(int, Stat_ApplicationId, int, const char *)";
  const std::string outside = "int Stat_StartOutsideApplicationEvent(const char *, const char *)";
  const std::string start_open =
      "int Stat_SendStartOpenBookEvent(const char *, Stat_ApplicationId, uint8_t, const char *)";
  const std::string open =
      "int Stat_SendOpenBookEvent(const char *, const char *, const char *const *, const char *, "
      "const char *const *, int, int, int, int, int, const char *, const char *, const char *, "
      "const char *)";
  const std::string new_books =
      "int Stat_NewBooksEventEx(int, const Stat_BookInfo *const *, Stat_ApplicationId)";
  const std::string library =
      "int Stat_LibrarySettingsEvent(int16_t, char, Stat_LibraryMode, Stat_LibraryFilter, "
      "Stat_LibraryGroupBy, Stat_LibrarySortBy, Stat_LibraryView, Stat_LibraryShowMemory)";
  const std::string font =
      "int Stat_SetFontParamsEvent(int, int16_t, const char *, char, char, int16_t, struct "
      "Margins, "
      "char, Stat_LineBreak, Stat_UpdateMode)";
  const std::string font_ex =
      "int Stat_SetFontParamsEventEx(int, int16_t, const char *, char, char, char, int16_t, "
      "const char *, char, struct MarginsEx, char, char, char, char)";

  return {
      // Device.
      {2008, "OrientationEvent", I16(1), orientation, [] { return Stat_SendOrientationEvent(1); }},
      {2008, "OrientationEvent", I16(4464), orientation,
       [] { return Stat_SendOrientationEvent(70000); }},
      {2008, "OrientationEvent", I16(-2), orientation,
       [] { return Stat_SendOrientationEvent(-2); }},
      {4001, "", "", "int Stat_ForceRotationEvent()", Stat_ForceRotationEvent},
      {4002, "", "", "int Stat_StatisticsSettingsChanged()", Stat_StatisticsSettingsChanged},
      {2017, "LanguageChangeEvent", "??", "int Stat_LangEvent()", Stat_LangEvent},
      {2016, "KeyboardSettingsEvent", no_keys, "int Stat_KeymappingEvent()", Stat_KeymappingEvent},

      // Applications.
      {2004, "StartApplicationEvent", I16(4464) + I16(-1) + I16(-25536) + Text("-v"), start,
       [] { return Stat_StartApplicationEvent(70000, -1, 40000, "-v"); }},
      {2004, "StartApplicationEvent", I16(1234) + I16(1) + I16(0) + Text(" -x"), start,
       [] { return LaunchByPath(1234, "explorer.app", {"-x"}); }},
      {2038, "StartOutsideApplicationEvent", Text("/opt/apps/explorer.app") + Text(""), outside,
       [] { return LaunchByPath(1, "/opt/apps/explorer.app", {}); }},
      {2038, "StartOutsideApplicationEvent", Text("own.app") + Text(" -a b"), outside,
       [] {
         return LaunchByPath(1, "own.app", {"-a", "b"});
       }},

      // Opening books.
      {2009, "StartOpenBookEvent", I32(-645120848) + I16(4464) + Ch(255) + Text(""), start_open,
       [] { return Stat_SendStartOpenBookEvent("abc", 70000, 255, nullptr); }},
      {2010, "OpenBookEvent",
       I32(943781977) + "en" + Texts({"x"}) + Text("c") + Texts({"p", ""}) + I16(1) + I16(4464) +
           I32(100000) + I16(-1) + I32(INT_MIN) + Text("a.epub") + Text("i") + Text("") +
           Text("k") + Text("l"),
       open,
       [] {
         return Stat_SendOpenBookEvent("/mnt/ext1/a.epub", "eng", kFirstList, "c", kSecondList, -5,
                                       70000, 100000, -1, INT_MIN, "i", nullptr, "k", "l");
       }},
      {2010, "OpenBookEvent",
       I32(-645120848) + std::string("e\0", 2) + Texts({}) + Text("") + Texts({}) + I16(0) +
           I16(0) + I32(0) + I16(0) + I32(0) + Text("abc") + NoText(4),
       open,
       [] {
         return Stat_SendOpenBookEvent("abc", "e", nullptr, nullptr, nullptr, 0, 0, 0, 0, 0,
                                       nullptr, nullptr, nullptr, nullptr);
       }},
      {2010, "OpenBookEvent",
       I32(-1608024550) + std::string(2, 0) + Texts({}) + Text("") + Texts({}) + I16(1) + I16(0) +
           I32(0) + I16(0) + I32(0) + NoText(5),
       open,
       [] {
         return Stat_SendOpenBookEvent("/books/", nullptr, kFirstList + 1, "", kSecondList + 2, 2,
                                       0, 0, 0, 0, "", "", "", "");
       }},

      // Inside a book.
      {2021, "GoToPageEvent", I16(5) + Ch(1) + I16(7) + I16(9),
       "int Stat_GoToPageEvent(int16_t, int16_t, int16_t, bool)",
       [] { return Stat_GoToPageEvent(5, 7, 9, true); }},
      {2031, "GoToPageEventNew", I16(2) + Ch(0) + I32(3) + I32(4) + I32(5) + I32(100),
       "int Stat_GoToPageEventEx(int, int16_t, int, int, int, bool)",
       [] { return Stat_GoToPageEventEx(100, 2, 3, 4, 5, false); }},
      {2032, "ChangePageEvent", I32(70000) + I16(-1) + I32(2) + I32(INT_MIN) + I32(-4),
       "int Stat_ChangePageEvent(int, int16_t, int, int, int)",
       [] { return Stat_ChangePageEvent(70000, -1, 2, INT_MIN, -4); }, false},
      {2022, "StartTtsEvent", I16(-1) + I32(-2) + Text("voice") + Text("") + I16(3) + I16(-4),
       "int Stat_StartTtsEvent(int16_t, int, const char *, const char *, int16_t, int16_t)",
       [] { return Stat_StartTtsEvent(-1, -2, "voice", "", 3, -4); }},
      {2023, "StopTtsEvent", I16(-300), "int Stat_StopTtsEvent(int16_t)",
       [] { return Stat_StopTtsEvent(-300); }},
      {2024, "AddNoteEvent", I32(-100000) + I16(32767), "int Stat_AddNoteEvent(int, int16_t)",
       [] { return Stat_AddNoteEvent(-100000, 32767); }},
      {2025, "UseDictionaryEvent", I32(7) + Text("d\xC3\xA9j\xC3\xA0 vu"),
       "int Stat_UseDictionaryEvent(int, const char *)",
       [] { return Stat_UseDictionaryEvent(7, "d\xC3\xA9j\xC3\xA0 vu"); }},
      {2029, "UsingTextToolsEvent", I32(1) + I16(4464), "int Stat_UsingTextToolsEvent(int, int)",
       [] { return Stat_UsingTextToolsEvent(1, 70000); }},
      {2030, "NotesAndBookmarksEvent", I32(-1) + I16(2) + I16(3) + I16(4) + I16(5) + I16(-6),
       "int Stat_NotesAndBookmarksEvent(int, int16_t, int16_t, int16_t, int16_t, int16_t)",
       [] { return Stat_NotesAndBookmarksEvent(-1, 2, 3, 4, 5, -6); }},
      {2035, "GoToURLEvent", I16(3) + Text(""), "int Stat_GoToURLEvent(int16_t, const char *)",
       [] { return Stat_GoToURLEvent(3, ""); }},

      // New books.
      {2028, "NewBooksEvent", I32(5), "int Stat_NewBooksEvent(int)",
       [] { return Stat_NewBooksEvent(5); }, false},
      {2028, "NewBooksEvent", I32(-1), "int Stat_NewBooksEvent(int)",
       [] { return Stat_NewBooksEvent(-1); }, false},
      {2028, "NewBooksEventEx", I32(0) + I16(4464), new_books,
       [] { return Stat_NewBooksEventEx(0, nullptr, 70000); }},
      {2028, "NewBooksEventEx", I32(-1) + I16(1), new_books,
       [] { return Stat_NewBooksEventEx(-1, kTwoBooks, 1); }},
      {2028, "NewBooksEventEx", I32(101) + I16(1), new_books,
       [] { return Stat_NewBooksEventEx(101, nullptr, 1); }},
      {2028, "NewBooksEventEx", I32(2) + kFullBookBytes + bare_book + I16(-1), new_books,
       [] { return Stat_NewBooksEventEx(2, kTwoBooks, -1); }},
      {2028, "NewBooksEventEx", I32(3) + kFullBookBytes + I16(1), new_books,
       [] { return Stat_NewBooksEventEx(3, kBrokenOff, 1); }, false},
      {2028, "NewBooksEventEx",
       I32(2) + unknown_book(1684781856, ".epub", "a.epub") +
           unknown_book(-369781117, ".fb2.zip", "b.fb2.zip") + I16(1),
       new_books, [] { return Stat_NewBooksEventSimple(2, kUnknownBooks, 1); }},

      // Settings. What is beyond a byte is cut off.
      {2018, "LibrarySettingsEvent", I16(1) + "a" + Ch(0) + Ch(1) + Ch(2) + Ch(3) + Ch(4) + Ch(5),
       library,
       [] {
         return Stat_LibrarySettingsEvent(1, 'a', Any<Stat_LibraryMode>(0),
                                          Any<Stat_LibraryFilter>(1), Any<Stat_LibraryGroupBy>(2),
                                          Any<Stat_LibrarySortBy>(3), Any<Stat_LibraryView>(4),
                                          Any<Stat_LibraryShowMemory>(5));
       }},
      {2018, "LibrarySettingsEvent",
       I16(-1) + Ch(0x80) + Ch(2) + Ch(0xFF) + Ch(0) + Ch(0x80) + Ch(0x7F) + Ch(0xFF), library,
       [] {
         return Stat_LibrarySettingsEvent(
             -1, kHigh, Any<Stat_LibraryMode>(258), Any<Stat_LibraryFilter>(-1),
             Any<Stat_LibraryGroupBy>(INT_MIN), Any<Stat_LibrarySortBy>(128),
             Any<Stat_LibraryView>(127), Any<Stat_LibraryShowMemory>(INT_MAX));
       }},
      {2019, "MediaExplorerSettingsEvent", I16(9) + "b" + Ch(1) + Ch(2),
       "int Stat_MediaExplorerSettingsEvent(int16_t, char, Stat_LibraryView, "
       "Stat_LibraryShowMemory)",
       [] {
         return Stat_MediaExplorerSettingsEvent(9, 'b', Any<Stat_LibraryView>(1),
                                                Any<Stat_LibraryShowMemory>(2));
       }},
      {2020, "ApplicationExplorerSettingsEvent", I16(9) + "b" + Ch(1) + Ch(2),
       "int Stat_ApplicationExplorerSettingsEvent(int16_t, char, Stat_LibraryView, "
       "Stat_LibraryShowMemory)",
       [] {
         return Stat_ApplicationExplorerSettingsEvent(9, 'b', Any<Stat_LibraryView>(1),
                                                      Any<Stat_LibraryShowMemory>(2));
       }},
      {2033, "Explorer3SettingsEvent", I16(9) + "b" + Ch(1) + Ch(2) + Ch(3) + Ch(4) + Ch(5),
       "int Stat_Explorer3SettingsEvent(int16_t, char, Stat_Explorer3Mode, Stat_Explorer3GroupBy, "
       "Stat_Explorer3SortBy, Stat_Explorer3Direction, Stat_Explorer3View)",
       [] {
         return Stat_Explorer3SettingsEvent(
             9, 'b', Any<Stat_Explorer3Mode>(1), Any<Stat_Explorer3GroupBy>(2),
             Any<Stat_Explorer3SortBy>(3), Any<Stat_Explorer3Direction>(4),
             Any<Stat_Explorer3View>(5));
       }},
      {2034, "MediaExplorer3SettingsEvent", I16(9) + "b" + Ch(1),
       "int Stat_MediaExplorer3SettingsEvent(int16_t, char, Stat_Explorer3View)",
       [] { return Stat_MediaExplorer3SettingsEvent(9, 'b', Any<Stat_Explorer3View>(257)); }},

      // Display.
      {2026, "SetReadingModeEvent",
       I32(-1) + I16(2) + Ch(3) + Ch(44) + I16(-5) + Ch(6) + Ch(7) + Ch(0x80),
       "int Stat_SetReadingModeEvent(int, int16_t, Stat_ReadingMode, Stat_ScaleType, int16_t, "
       "Stat_CropType, char, char)",
       [] {
         return Stat_SetReadingModeEvent(-1, 2, Any<Stat_ReadingMode>(3), Any<Stat_ScaleType>(300),
                                         -5, Any<Stat_CropType>(6), 7, kHigh);
       }},
      {2027, "SetFontParamsEvent",
       I32(1) + I16(-2) + Text("Serif") + "d" + I16(6) + I32(0x01020304) + "g" + Ch(1) + Ch(0xFF),
       font,
       [] {
         return Stat_SetFontParamsEvent(1, -2, "Serif", 'd', 'e', 6, Margins{1, 2, 3, 4}, 'g',
                                        Any<Stat_LineBreak>(257), Any<Stat_UpdateMode>(-1));
       }},
      {2027, "SetFontParamsEvent",
       I32(1) + I16(2) + Text("") + "d" + I16(6) + I32(-1) + "g" + Ch(0) + Ch(0), font,
       [] {
         return Stat_SetFontParamsEvent(1, 2, "", 'd', kHigh, 6, Margins{1, 2, 3, -1}, 'g',
                                        Any<Stat_LineBreak>(0), Any<Stat_UpdateMode>(0));
       }},
      {2027, "SetFontParamsEvent",
       I32(1) + I16(2) + Text("") + "d" + I16(6) + I32(-16777216) + "g" + Ch(0) + Ch(0), font,
       [] {
         return Stat_SetFontParamsEvent(1, 2, "", 'd', 'e', 6, Margins{-1, 0, 0, 0}, 'g',
                                        Any<Stat_LineBreak>(0), Any<Stat_UpdateMode>(0));
       }},
      {2027, "SetFontParamsEvent",
       I32(1) + I16(2) + Text("") + "d" + I16(6) + I32(-130300) + "g" + Ch(0) + Ch(0), font,
       [] {
         return Stat_SetFontParamsEvent(1, 2, "", 'd', 'e', 6, Margins{1, -2, 3, 4}, 'g',
                                        Any<Stat_LineBreak>(0), Any<Stat_UpdateMode>(0));
       }},
      {2027, "SetFontParamsEvent",
       I32(1) + I16(2) + Text("") + "d" + I16(6) + I32(-764) + "g" + Ch(0) + Ch(0), font,
       [] {
         return Stat_SetFontParamsEvent(1, 2, "", 'd', 'e', 6, Margins{1, 2, -3, 4}, 'g',
                                        Any<Stat_LineBreak>(0), Any<Stat_UpdateMode>(0));
       }},
      {2037, "SetFontParamsEventEx",
       I32(-1) + I16(2) + Text("Sans") + "d" + "f" + I16(-7) + Text("h") + "i" + Text("m1") +
           Text("m2") + Text("m3") + Text("m4") + Text("") + Text("m6") + Text("m7") + Text("m8") +
           "jkl" + Ch(0x80),
       font_ex,
       [] {
         return Stat_SetFontParamsEventEx(-1, 2, "Sans", 'd', 'e', 'f', -7, "h", 'i',
                                          MarginsEx{"m1", "m2", "m3", "m4", "", "m6", "m7", "m8"},
                                          'j', 'k', 'l', kHigh);
       }},

      // Records that no exported function sends.
      {2001, "", ""},
      {2002, "", ""},
      {2012, "", ""},
      {2013, "", ""},
      {2014, "SendArchiveEvent", Text("journal-1")},
      {2015, "DeleteArchiveEvent", Text("")},
      {2016, "KeyboardSettingsEvent", keys},
      {2017, "LanguageChangeEvent", Ch(0) + Ch(0x80)},
      {2032, "ChangePageEventEx",
       I32(1) + I16(-2) + I32(3) + I32(4) + I32(5) + "f" + Ch(0x80) + I16(8) + I32(-9)},
      {1, "OrientationEvent", I16(-1) + I16(-3)},
      {3, "KeyboardSettingsEvent", I16(0) + keys},
      {4, "LanguageChangeEvent", I16(0) + "en"},
      {5, "DeviceInfoEvent", I16(0) + device},
      {6, "VersionEvent", I16(0) + Text("6.8.2441")},
  };
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_LIBRARY_GOLDEN_RECORDS_H_
