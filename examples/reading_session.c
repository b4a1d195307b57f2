/* A reading session as a device's applications report it, from switching the language to the last
 * page. It calls every exported function at least once; copy what you need.
 *
 * usage: reading_session BOOK...    paths of books as the device knows them
 */

#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <usage_stat.h>

static int lost; /* events that did not reach the collector */

/* An application goes on whatever comes of a report; this one counts. */
static void Report(const char* what, int err) {
  if (err == 0) return;
  ++lost;
  fprintf(stderr, "%s: %s (%d)\n", what, err > 0 ? strerror(err) : "not sent", err);
}

static void StartDevice(void) {
  Report("language", Stat_LangEvent());
  Report("keys", Stat_KeymappingEvent());
  Report("orientation", Stat_SendOrientationEvent(0));
}

static void LaunchApplications(void) {
  const int pid = (int)getpid();
  const char* no_arguments[] = {NULL};
  const char* arguments[] = {"--read-only", NULL};
  Report("explorer", Stat_StartApplicationByPathEvent(pid, "explorer.app", 0, no_arguments));
  Report("outside application",
         Stat_StartApplicationByPathEvent(pid, "/mnt/ext1/applications/clock.app", 0, arguments));
  Report("dictionary",
         Stat_StartApplicationEvent(pid, Stat_GetApplicationId("Dictionary.app"), 0, ""));
}

static void FindNewBooks(int count, const char* const* paths) {
  const Stat_ApplicationId explorer = Stat_GetApplicationId("explorer.app");
  int i;
  Report("count of new books", Stat_NewBooksEvent(count));
  Report("new books by path", Stat_NewBooksEventSimple(count, paths, explorer));

  for (i = 0; i < count; ++i) StatUtils_AddNewBookToStatList(paths[i]);
  if (StatUtils_StatListSize() > 0) {
    Report("described new books",
           Stat_NewBooksEventEx(StatUtils_StatListSize(), StatUtils_GetStatList(), explorer));
  }
  StatUtils_FreeStatList();
}

static void ChangeSettings(void) {
  Report("library",
         Stat_LibrarySettingsEvent(1, 'l', STAT_LIBRARY_MODE_AUTHORS, STAT_LIBRARY_FILTER_UNREAD,
                                   STAT_LIBRARY_GROUP_BY_SERIES, STAT_LIBRARY_SORT_BY_DATE_ADDED,
                                   STAT_LIBRARY_VIEW_COVERS, STAT_LIBRARY_SHOW_MEMORY_YES));
  Report("media explorer", Stat_MediaExplorerSettingsEvent(1, 'm', STAT_LIBRARY_VIEW_LIST,
                                                           STAT_LIBRARY_SHOW_MEMORY_NO));
  Report("application explorer",
         Stat_ApplicationExplorerSettingsEvent(1, 'a', STAT_LIBRARY_VIEW_DETAILS,
                                               STAT_LIBRARY_SHOW_MEMORY_NO));
  Report("explorer", Stat_Explorer3SettingsEvent(
                         1, 'e', STAT_EXPLORER3_MODE_BOOKS, STAT_EXPLORER3_GROUP_BY_FOLDER,
                         STAT_EXPLORER3_SORT_BY_DATE, STAT_EXPLORER3_DIRECTION_DESCENDING,
                         STAT_EXPLORER3_VIEW_DETAILS));
  Report("media explorer 3", Stat_MediaExplorer3SettingsEvent(1, 'm', STAT_EXPLORER3_VIEW_ICONS));
  Report("settings changed", Stat_StatisticsSettingsChanged());
}

static void OpenBook(const char* path) {
  const char* authors[] = {"A. Author", NULL};
  const char* genres[] = {"walks", "trees", NULL};
  Report("start of opening",
         Stat_SendStartOpenBookEvent(path, Stat_GetApplicationId("bookshelf.app"), 1, "shelf"));
  Report("open book", Stat_SendOpenBookEvent(path, "en_GB", authors, ".epub", genres, 1, 12, 240, 3,
                                             480, "", "", "", ""));
}

static void ReadBook(int book) {
  const struct Margins margins = {4, 4, 6, 6};
  const struct MarginsEx margin_texts = {"4", "4", "6", "6", "", "", "", ""};
  int page;
  Report("reading mode",
         Stat_SetReadingModeEvent(book, 12, STAT_READING_MODE_PAGES, STAT_SCALE_TYPE_FIT_WIDTH, 100,
                                  STAT_CROP_TYPE_AUTOMATIC, 0, 1));
  Report("font", Stat_SetFontParamsEvent(book, 12, "DejaVu Serif", 1, 0, 24, margins, 0,
                                         STAT_LINE_BREAK_HYPHENS, STAT_UPDATE_MODE_PARTIAL));
  Report("font in full", Stat_SetFontParamsEventEx(book, 12, "DejaVu Serif", 1, 0, 2, 24,
                                                   "DejaVu Sans", 1, margin_texts, 0, 1, 0, 1));
  Report("jump", Stat_GoToPageEvent(12, 12, 240, true));
  Report("long jump", Stat_GoToPageEventEx(book, 12, 12, 13, 240, false));
  for (page = 13; page < 18; ++page) {
    Report("page turn", Stat_ChangePageEvent(book, 12, page, page + 1, 240));
  }
  Report("reserved page turn", Stat_ChangePageEventEx(book, 12, 18, 19, 240, 0, 0, 0, 0));
  Report("dictionary", Stat_UseDictionaryEvent(book, "arboretum"));
  Report("note", Stat_AddNoteEvent(book, 17));
  Report("notes and bookmarks", Stat_NotesAndBookmarksEvent(book, 1, 0, 2, 0, 0));
  Report("text tool", Stat_UsingTextToolsEvent(book, 3));
  Report("speech", Stat_StartTtsEvent(12, book, "en", "voice-1", 50, 100));
  Report("end of speech", Stat_StopTtsEvent(12));
  Report("link", Stat_GoToURLEvent(12, "https://example.org/trees"));
}

int main(int argc, char** argv) {
  const char* const* books = (const char* const*)argv + 1;
  const int count = argc - 1;
  int i;
  if (count < 1) {
    fprintf(stderr, "usage: %s BOOK...\n", argv[0]);
    return 2;
  }
  StartDevice();
  LaunchApplications();
  FindNewBooks(count, books);
  ChangeSettings();
  for (i = 0; i < count; ++i) {
    OpenBook(books[i]);
    ReadBook(Stat_GetBookId(books[i]));
  }
  Report("rotation", Stat_ForceRotationEvent());
  if (lost > 0) fprintf(stderr, "%d events lost\n", lost);
  return lost > 0 ? 1 : 0;
}
