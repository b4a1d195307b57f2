/* Usage statistics of the device's applications.
 *
 * Call one function whenever the user does something worth counting. The call becomes one event,
 * stamped with the time of the call, and one message to the statistics collector on the same
 * device. Link with -lusage_stat.
 *
 * What holds for every function unless it says otherwise:
 *
 *   Results   0: the collector has the message. Non-zero: the event is lost, and log lines of the
 *             platform's logger say why; nothing is retried later.
 *               -1    a field could not be written, for example a language code of the wrong length
 *               -2    the arguments were rejected
 *               > 0   an errno value of the transport: ECONNREFUSED when no collector listens,
 *                     EAGAIN when it stayed too busy, EMSGSIZE when the event is larger than
 *                     100 KiB, EMFILE and the like when the process has run out of resources
 *   Blocking  A call hands over its message before it returns. When the collector's queue is full
 *             it waits for room for 100 ms, which the kernel's timers may make up to 110, and then
 *             as long as a busy machine keeps it from running. No signal is raised.
 *   Threads   Any function may be called from any thread at any time, except that the new-book list
 *             (StatUtils_...) belongs to one thread.
 *   Text      NUL-terminated bytes, UTF-8 by custom, copied before the call returns. Null is
 *             allowed only where stated. Anywhere else it raises a C++ exception
 *             (std::logic_error), which ends a C program: never pass it. Compilers that know how
 *             warn of it, unless STAT_ALLOW_NULL is defined.
 *   Numbers   Where a field of the record is narrower than the argument, its low bits are sent.
 *             Arguments with a letter for a name are the application's own: they are sent unchanged
 *             and mean what the application and the analyst agree on.
 *   Names     The other names are conventions of the applications, not of the record, and are those
 *             of docs/records.md, of JSON, CSV and SQL. They do not change any more.
 *   Enums     Any int may be passed; its low byte is sent.
 *   Memory    A call allocates for its event's text and the like, and keeps nothing. When memory
 *             runs out, a C++ exception (std::bad_alloc) leaves the call; only the id of a book is
 *             sent as 0 when it can't be computed.
 *   Stack     A call takes at most 4 KiB of its thread's stack for itself. What the platform
 *             libraries take comes on top, and what libcrypto takes to get ready for a process's
 *             first book id: together at most 16 KiB with those of the host.
 *
 * Arguments with names that mean the same everywhere, and what each means:
 *
 *   orientation          how the screen is turned, in the platform's numbers
 *   process_id           the application's process, low 16 bits
 *   arguments            arguments of the application, a blank before each
 *   to_page              page that was gone to
 *   pages                pages that the book has, as it is displayed
 *   book_id              the book, by the id of its path
 *   from_page            page that was left
 *   voice                name of the voice
 *   page                 page of the note
 *   word                 the word that was looked up
 *   url                  where the link leads
 *   books                descriptions of the books
 *   library_mode         what the library shows
 *   library_filter       which books it shows
 *   library_group_by     how they are grouped
 *   library_sort_by      how they are sorted
 *   library_view         how it looks
 *   library_show_memory  whether the use of memory is shown
 *   explorer3_mode       what the explorer shows
 *   explorer3_group_by   how that is grouped
 *   explorer3_sort_by    how that is sorted
 *   explorer3_direction  in which direction
 *   explorer3_view       how it looks
 *   reading_mode         how pages follow one another
 *   scale_type           what a page is fitted to
 *   crop_type            whether margins are cut off
 *   font                 name of the font
 *   line_break           how lines are broken
 *   update_mode          how the screen is refreshed at a page turn
 */

#ifndef USAGE_STAT_H_
#define USAGE_STAT_H_

#include <stdbool.h>
#include <stdint.h>

#if defined(__GNUC__)
#define STAT_API __attribute__((visibility("default")))
#else
#define STAT_API
#endif

/* Which arguments must not be null. The library itself looks at them all the same. */
#if defined(__GNUC__) && !defined(STAT_ALLOW_NULL)
#define STAT_NONNULL(...) __attribute__((nonnull(__VA_ARGS__)))
#else
#define STAT_NONNULL(...)
#endif

/* Enumerations hold any int, in C++ too. */
#ifdef __cplusplus
#define STAT_ANY_INT : int
#else
#define STAT_ANY_INT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Types ---- */

/* Names an application of the device; see Stat_GetApplicationId. -1: unknown. */
typedef int Stat_ApplicationId;

/* What the library application shows. */
typedef enum Stat_LibraryMode STAT_ANY_INT {
  STAT_LIBRARY_MODE_ALL = 0,
  STAT_LIBRARY_MODE_AUTHORS = 1,
  STAT_LIBRARY_MODE_GENRES = 2,
  STAT_LIBRARY_MODE_COLLECTIONS = 3,
  STAT_LIBRARY_MODE_FOLDERS = 4,
  STAT_LIBRARY_MODE_SEARCH = 5
} Stat_LibraryMode;

/* Which books it shows. */
typedef enum Stat_LibraryFilter STAT_ANY_INT {
  STAT_LIBRARY_FILTER_NONE = 0,
  STAT_LIBRARY_FILTER_UNREAD = 1,
  STAT_LIBRARY_FILTER_READING = 2,
  STAT_LIBRARY_FILTER_FINISHED = 3,
  STAT_LIBRARY_FILTER_FAVOURITES = 4
} Stat_LibraryFilter;

typedef enum Stat_LibraryGroupBy STAT_ANY_INT {
  STAT_LIBRARY_GROUP_BY_NOTHING = 0,
  STAT_LIBRARY_GROUP_BY_AUTHOR = 1,
  STAT_LIBRARY_GROUP_BY_GENRE = 2,
  STAT_LIBRARY_GROUP_BY_SERIES = 3,
  STAT_LIBRARY_GROUP_BY_FORMAT = 4
} Stat_LibraryGroupBy;

typedef enum Stat_LibrarySortBy STAT_ANY_INT {
  STAT_LIBRARY_SORT_BY_TITLE = 0,
  STAT_LIBRARY_SORT_BY_AUTHOR = 1,
  STAT_LIBRARY_SORT_BY_DATE_ADDED = 2,
  STAT_LIBRARY_SORT_BY_DATE_OPENED = 3,
  STAT_LIBRARY_SORT_BY_SIZE = 4
} Stat_LibrarySortBy;

typedef enum Stat_LibraryView STAT_ANY_INT {
  STAT_LIBRARY_VIEW_LIST = 0,
  STAT_LIBRARY_VIEW_DETAILS = 1,
  STAT_LIBRARY_VIEW_COVERS = 2
} Stat_LibraryView;

/* Whether the use of memory is shown. */
typedef enum Stat_LibraryShowMemory STAT_ANY_INT {
  STAT_LIBRARY_SHOW_MEMORY_NO = 0,
  STAT_LIBRARY_SHOW_MEMORY_YES = 1
} Stat_LibraryShowMemory;

/* What the explorer shows. */
typedef enum Stat_Explorer3Mode STAT_ANY_INT {
  STAT_EXPLORER3_MODE_FILES = 0,
  STAT_EXPLORER3_MODE_BOOKS = 1,
  STAT_EXPLORER3_MODE_MUSIC = 2,
  STAT_EXPLORER3_MODE_PICTURES = 3
} Stat_Explorer3Mode;

typedef enum Stat_Explorer3GroupBy STAT_ANY_INT {
  STAT_EXPLORER3_GROUP_BY_NOTHING = 0,
  STAT_EXPLORER3_GROUP_BY_FOLDER = 1,
  STAT_EXPLORER3_GROUP_BY_TYPE = 2
} Stat_Explorer3GroupBy;

typedef enum Stat_Explorer3SortBy STAT_ANY_INT {
  STAT_EXPLORER3_SORT_BY_NAME = 0,
  STAT_EXPLORER3_SORT_BY_DATE = 1,
  STAT_EXPLORER3_SORT_BY_SIZE = 2,
  STAT_EXPLORER3_SORT_BY_TYPE = 3
} Stat_Explorer3SortBy;

typedef enum Stat_Explorer3Direction STAT_ANY_INT {
  STAT_EXPLORER3_DIRECTION_ASCENDING = 0,
  STAT_EXPLORER3_DIRECTION_DESCENDING = 1
} Stat_Explorer3Direction;

typedef enum Stat_Explorer3View STAT_ANY_INT {
  STAT_EXPLORER3_VIEW_LIST = 0,
  STAT_EXPLORER3_VIEW_DETAILS = 1,
  STAT_EXPLORER3_VIEW_ICONS = 2
} Stat_Explorer3View;

typedef enum Stat_ReadingMode STAT_ANY_INT {
  STAT_READING_MODE_PAGES = 0,
  STAT_READING_MODE_SCROLL = 1,
  STAT_READING_MODE_COLUMNS = 2,
  STAT_READING_MODE_REFLOW = 3
} Stat_ReadingMode;

typedef enum Stat_ScaleType STAT_ANY_INT {
  STAT_SCALE_TYPE_FIT_PAGE = 0,
  STAT_SCALE_TYPE_FIT_WIDTH = 1,
  STAT_SCALE_TYPE_FIT_HEIGHT = 2,
  STAT_SCALE_TYPE_FREE = 3
} Stat_ScaleType;

typedef enum Stat_CropType STAT_ANY_INT {
  STAT_CROP_TYPE_NONE = 0,
  STAT_CROP_TYPE_AUTOMATIC = 1,
  STAT_CROP_TYPE_MANUAL = 2
} Stat_CropType;

typedef enum Stat_LineBreak STAT_ANY_INT {
  STAT_LINE_BREAK_NONE = 0,
  STAT_LINE_BREAK_HYPHENS = 1
} Stat_LineBreak;

/* How the screen is refreshed at a page turn. */
typedef enum Stat_UpdateMode STAT_ANY_INT {
  STAT_UPDATE_MODE_FULL = 0,
  STAT_UPDATE_MODE_PARTIAL = 1,
  STAT_UPDATE_MODE_FAST = 2
} Stat_UpdateMode;

/* Margins as numbers, -128 to 127 each. */
struct Margins {
  int8_t margin_1;
  int8_t margin_2;
  int8_t margin_3;
  int8_t margin_4;
};

/* Margins as NUL-terminated texts, of at most 31 bytes each. A text without a NUL in its 32 bytes
 * is read past its end. */
struct MarginsEx {
  char margin_1[32];
  char margin_2[32];
  char margin_3[32];
  char margin_4[32];
  char margin_5[32];
  char margin_6[32];
  char margin_7[32];
  char margin_8[32];
};

/* One new book; each member with its name in records. A null text counts as empty, a null list as
 * an empty one; lists end with a null pointer. `book_id` is Stat_GetBookId of the book's path; of
 * `language` the first 2 characters are sent. */
typedef struct Stat_BookInfo {
  int book_id;          /* book_id: the book, by the id of its path */
  const char* language; /* language: language of the book, two letters; empty when unknown */
  const char* const* first_list;  /* authors: the first author */
  const char* file_type;          /* file_type: type of the file, such as .epub or .fb2.zip */
  const char* const* second_list; /* other_people: further authors, translators and others */
  int n1;                         /* year: year of publication; 0 when unknown */
  int16_t n2;                     /* series_number: number in the series; 0 when unknown */
  const char* file_name;          /* file_name: name of the book's file, without folders */
  const char* s1;                 /* title: title of the book */
  const char* s2;                 /* series: series that it belongs to */
  const char* isbn;               /* isbn: ISBN, 13 digits */
  const char* s3;                 /* publisher: publisher */
} Stat_BookInfo;

/* ---- Device ---- */

/* The screen was turned to `orientation`, of which the low 16 bits are sent. */
STAT_API int Stat_SendOrientationEvent(int orientation);

/* Asks the collector to rotate its journal. */
STAT_API int Stat_ForceRotationEvent(void);

/* Tells the collector that the statistics setting has changed. */
STAT_API int Stat_StatisticsSettingsChanged(void);

/* Reports the interface language of the device's global configuration, "??" when there is none.
 * -1 when it has not exactly 2 characters. */
STAT_API int Stat_LangEvent(void);

/* Reports which actions are assigned to the device's keys. */
STAT_API int Stat_KeymappingEvent(void);

/* ---- Applications ---- */

/* The id of the application called `path`, a bare name such as "explorer.app"; -1 when there is
 * none, when the name has a directory part, and for null. The first call asks the platform for the
 * device's partner, which decides on the id of the store. */
STAT_API Stat_ApplicationId Stat_GetApplicationId(const char* path);

/* An application was started as process `process_id` with the text `arguments` (not null). Of
 * `process_id`, `application` and `c` the low 16 bits are sent. */
STAT_API STAT_NONNULL(4) int Stat_StartApplicationEvent(int process_id,
                                                        Stat_ApplicationId application, int c,
                                                        const char* arguments);

/* The application at `path` (not null) was started as process `process_id` with `arguments` (not
 * null), a list that ends with a null pointer and may be empty. A bare name that the device knows
 * is sent as Stat_StartApplicationEvent does; any other path as that of an outside application.
 *
 * Returns 0 when an event was sent or tried, whatever came of it; -1, sending nothing, when the
 * application is a book reader, since readers report their books themselves. */
STAT_API STAT_NONNULL(2, 4) int Stat_StartApplicationByPathEvent(int process_id, const char* path,
                                                                 int c, const char** arguments);

/* ---- Opening books ---- */

/* The id that stands for the book at `path` (not null): a digest of the path's bytes, the same on
 * every device; 0 when memory runs out. Sends and logs nothing. */
STAT_API STAT_NONNULL(1) int Stat_GetBookId(const char* path);

/* `application` begins to open the book at `path` (not null). `b` may be null, which is sent as the
 * empty text. Of `application` the low 16 bits are sent, as an unsigned number. */
STAT_API STAT_NONNULL(1) int Stat_SendStartOpenBookEvent(const char* path,
                                                         Stat_ApplicationId application, uint8_t a,
                                                         const char* b);

/* The book at `path` (not null) is open. What is sent is its id and its file name, never the path.
 * Every other text may be null, which is sent as the empty text. The lists end with a null pointer;
 * a null list is an empty one. `language` is cut to 2 characters; `d` is sent as 1 when it is not
 * 0; of `e` and `g` the low 16 bits are sent. */
STAT_API STAT_NONNULL(1) int Stat_SendOpenBookEvent(const char* path, const char* language,
                                                    const char* const* authors,
                                                    const char* file_type,
                                                    const char* const* genres, int d, int e,
                                                    int pages, int g, int h, const char* i,
                                                    const char* j, const char* k, const char* l);

/* ---- Inside a book ---- */

/* A jump to a page; Stat_GoToPageEventEx has the wider numbers. */
STAT_API int Stat_GoToPageEvent(int16_t a, int16_t to_page, int16_t pages, bool b);
STAT_API int Stat_GoToPageEventEx(int book_id, int16_t b, int from_page, int to_page, int pages,
                                  bool f);

/* A page turn. */
STAT_API int Stat_ChangePageEvent(int book_id, int16_t b, int from_page, int to_page, int pages);

/* Reserved: sends nothing, logs nothing and returns 0, whatever it is passed. */
STAT_API int Stat_ChangePageEventEx(int book_id, int16_t b, int from_page, int to_page, int pages,
                                    char f, char g, int16_t h, int i);

/* Text-to-speech began, in `language`, with `voice`; or ended. */
STAT_API STAT_NONNULL(3, 4) int Stat_StartTtsEvent(int16_t a, int book_id, const char* language,
                                                   const char* voice, int16_t e, int16_t f);
STAT_API int Stat_StopTtsEvent(int16_t a);

/* A note was added on `page`. */
STAT_API int Stat_AddNoteEvent(int book_id, int16_t page);

/* `word` was looked up in a dictionary. */
STAT_API STAT_NONNULL(2) int Stat_UseDictionaryEvent(int book_id, const char* word);

/* The state of a book's notes and bookmarks. */
STAT_API int Stat_NotesAndBookmarksEvent(int book_id, int16_t b, int16_t c, int16_t d, int16_t e,
                                         int16_t f);

/* A text tool was used. Of `b` the low 16 bits are sent. */
STAT_API int Stat_UsingTextToolsEvent(int book_id, int b);

/* A link to `url` was followed. */
STAT_API STAT_NONNULL(2) int Stat_GoToURLEvent(int16_t a, const char* url);

/* ---- New books ---- */

/* `count` new books were found, about which nothing else is known. */
STAT_API int Stat_NewBooksEvent(int count);

/* `application` found `count` new books. `books` has `count` elements, up to 100; a null element
 * ends the batch early, while `count` is sent as given. With a count below 1 or above 100 no book
 * is looked at and the count is sent alone; so it is when `books` is null. */
STAT_API int Stat_NewBooksEventEx(int count, const Stat_BookInfo* const* books,
                                  Stat_ApplicationId application);

/* The same with the descriptions fetched from the platform by path; a book that the platform can't
 * read is sent with its id, file type and file name alone. All books of one call are sent with the
 * two lists of the last one: send them one by one where that matters. A null path ends the batch
 * early. -2 when `count` is below 1 or `paths` is null. A path whose only dot begins ".zip" raises
 * a C++ exception (std::out_of_range). */
STAT_API int Stat_NewBooksEventSimple(int count, const char* const* paths,
                                      Stat_ApplicationId application);

/* The new-book list collects described books one by one for a later
 *
 *   Stat_NewBooksEventEx(StatUtils_StatListSize(), StatUtils_GetStatList(), application);
 *   StatUtils_FreeStatList();
 *
 * It is one list for the whole process, without a lock: use it from one thread. */

/* Adds the book at `path`. Does nothing when the platform knows no such book (nor one at null),
 * when the list already holds more than 100 books, or when memory runs out. */
STAT_API void StatUtils_AddNewBookToStatList(const char* path);

/* Releases all books of the list. */
STAT_API void StatUtils_FreeStatList(void);

/* The number of books in the list, 0 to 101. */
STAT_API int StatUtils_StatListSize(void);

/* The books of the list. The result and what it points to belong to the list and are valid until
 * the next StatUtils_AddNewBookToStatList or StatUtils_FreeStatList. */
STAT_API const Stat_BookInfo* const* StatUtils_GetStatList(void);

/* ---- Settings ---- */

/* The view settings of the library application and of the explorers. */
STAT_API int Stat_LibrarySettingsEvent(int16_t a, char b, Stat_LibraryMode library_mode,
                                       Stat_LibraryFilter library_filter,
                                       Stat_LibraryGroupBy library_group_by,
                                       Stat_LibrarySortBy library_sort_by,
                                       Stat_LibraryView library_view,
                                       Stat_LibraryShowMemory library_show_memory);
STAT_API int Stat_MediaExplorerSettingsEvent(int16_t a, char b, Stat_LibraryView library_view,
                                             Stat_LibraryShowMemory library_show_memory);
STAT_API int Stat_ApplicationExplorerSettingsEvent(int16_t a, char b, Stat_LibraryView library_view,
                                                   Stat_LibraryShowMemory library_show_memory);
STAT_API int Stat_Explorer3SettingsEvent(int16_t a, char b, Stat_Explorer3Mode explorer3_mode,
                                         Stat_Explorer3GroupBy explorer3_group_by,
                                         Stat_Explorer3SortBy explorer3_sort_by,
                                         Stat_Explorer3Direction explorer3_direction,
                                         Stat_Explorer3View explorer3_view);
STAT_API int Stat_MediaExplorer3SettingsEvent(int16_t a, char b, Stat_Explorer3View explorer3_view);

/* How a book is displayed. */
STAT_API int Stat_SetReadingModeEvent(int book_id, int16_t b, Stat_ReadingMode reading_mode,
                                      Stat_ScaleType scale_type, int16_t e, Stat_CropType crop_type,
                                      char g, char h);

/* The font of a book. `e` is accepted and not sent. The margins travel as one number: the first in
 * the highest byte, a negative second to fourth one setting every bit above its own byte. */
STAT_API STAT_NONNULL(3) int Stat_SetFontParamsEvent(int book_id, int16_t b, const char* font,
                                                     char d, char e, int16_t f,
                                                     struct Margins margins, char g,
                                                     Stat_LineBreak line_break,
                                                     Stat_UpdateMode update_mode);

/* The same with margins as texts. Here too `e` is accepted and not sent. */
STAT_API STAT_NONNULL(3, 8) int Stat_SetFontParamsEventEx(int book_id, int16_t b, const char* font,
                                                          char d, char e, char f, int16_t g,
                                                          const char* h, char i,
                                                          struct MarginsEx margins, char j, char k,
                                                          char l, char m);

#ifdef __cplusplus
}
#endif

#endif /* USAGE_STAT_H_ */
