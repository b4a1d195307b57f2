/* An application in C that calls every exported function, and the collector that gets its events.
 */

#define _GNU_SOURCE
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "usage_stat.h"

static int collector;
static int failures;

static void Listen(void) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  char* text = address.sun_path + 1;
  const int length =
      snprintf(text, sizeof(address.sun_path) - 1, "usage_stat_test.c.%d", (int)getpid());
  const socklen_t size = (socklen_t)offsetof(struct sockaddr_un, sun_path) + (socklen_t)length + 2;
  collector = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (bind(collector, (const struct sockaddr*)&address, size) != 0 ||
      setenv("VELMORA_MESSAGE_ENDPOINT", text, 1) != 0 || setenv("CORVANE_ROOT", "/none", 1) != 0) {
    perror("c_consumer");
    exit(2);
  }
}

static void Check(const char* call, int result, int messages) {
  char message[4096];
  int received = 0;
  while (recv(collector, message, sizeof(message), MSG_DONTWAIT) > 0) ++received;
  if (result != 0 || received != messages) {
    fprintf(stderr, "%s: result %d, %d messages\n", call, result, received);
    ++failures;
  }
}

#define SENDS(call) Check(#call, call, 1)
#define SENDS_NOTHING(call) Check(#call, call, 0)

int main(void) {
  const char* const list[] = {"one", "two", NULL};
  const char* arguments[] = {"-v", NULL};
  const char* const paths[] = {"/a.epub", "/b.fb2.zip"};
  const Stat_BookInfo book = {.book_id = 1, .language = "en", .first_list = list};
  const Stat_BookInfo* const books[] = {&book};
  const struct Margins margins = {1, 2, 3, -4};
  const struct MarginsEx texts = {"1", "2", "3", "4", "5", "6", "7", "8"};
  Listen();

  SENDS(Stat_SendOrientationEvent(1));
  SENDS(Stat_ForceRotationEvent());
  SENDS(Stat_StatisticsSettingsChanged());
  SENDS(Stat_LangEvent());
  SENDS(Stat_KeymappingEvent());
  SENDS_NOTHING(Stat_GetApplicationId("explorer.app") - 1);
  SENDS(Stat_StartApplicationEvent(1, 2, 3, "-v"));
  SENDS(Stat_StartApplicationByPathEvent(1, "/opt/own.app", 3, arguments));
  SENDS_NOTHING(Stat_GetBookId("abc") + 645120848);
  SENDS(Stat_SendStartOpenBookEvent("/a.epub", 1, 2, NULL));
  SENDS(
      Stat_SendOpenBookEvent("/a.epub", "en", list, "c", list, 1, 2, 3, 4, 5, "i", "j", "k", "l"));
  SENDS(Stat_GoToPageEvent(1, 2, 3, true));
  SENDS(Stat_GoToPageEventEx(1, 2, 3, 4, 5, false));
  SENDS(Stat_ChangePageEvent(1, 2, 3, 4, 5));
  SENDS_NOTHING(Stat_ChangePageEventEx(1, 2, 3, 4, 5, 'f', 'g', 8, 9));
  SENDS(Stat_StartTtsEvent(1, 2, "c", "d", 5, 6));
  SENDS(Stat_StopTtsEvent(1));
  SENDS(Stat_AddNoteEvent(1, 2));
  SENDS(Stat_UseDictionaryEvent(1, "word"));
  SENDS(Stat_NotesAndBookmarksEvent(1, 2, 3, 4, 5, 6));
  SENDS(Stat_UsingTextToolsEvent(1, 2));
  SENDS(Stat_GoToURLEvent(1, "http://localhost/"));
  SENDS(Stat_NewBooksEvent(1));
  SENDS(Stat_NewBooksEventEx(1, books, 1));
  SENDS(Stat_NewBooksEventSimple(2, paths, 1));
  StatUtils_AddNewBookToStatList("/a.epub");
  SENDS(Stat_NewBooksEventEx(StatUtils_StatListSize(), StatUtils_GetStatList(), 1));
  StatUtils_FreeStatList();
  SENDS(Stat_LibrarySettingsEvent(1, 'b', STAT_LIBRARY_MODE_ALL, STAT_LIBRARY_FILTER_NONE,
                                  STAT_LIBRARY_GROUP_BY_NOTHING, STAT_LIBRARY_SORT_BY_TITLE,
                                  STAT_LIBRARY_VIEW_LIST, STAT_LIBRARY_SHOW_MEMORY_NO));
  SENDS(Stat_MediaExplorerSettingsEvent(1, 'b', STAT_LIBRARY_VIEW_LIST,
                                        STAT_LIBRARY_SHOW_MEMORY_YES));
  SENDS(Stat_ApplicationExplorerSettingsEvent(1, 'b', STAT_LIBRARY_VIEW_LIST,
                                              STAT_LIBRARY_SHOW_MEMORY_YES));
  SENDS(Stat_Explorer3SettingsEvent(1, 'b', STAT_EXPLORER3_MODE_FILES,
                                    STAT_EXPLORER3_GROUP_BY_NOTHING, STAT_EXPLORER3_SORT_BY_NAME,
                                    STAT_EXPLORER3_DIRECTION_ASCENDING, STAT_EXPLORER3_VIEW_LIST));
  SENDS(Stat_MediaExplorer3SettingsEvent(1, 'b', STAT_EXPLORER3_VIEW_LIST));
  SENDS(Stat_SetReadingModeEvent(1, 2, STAT_READING_MODE_PAGES, STAT_SCALE_TYPE_FREE, 5,
                                 STAT_CROP_TYPE_NONE, 'g', 'h'));
  SENDS(Stat_SetFontParamsEvent(1, 2, "Serif", 'd', 'e', 6, margins, 'g', STAT_LINE_BREAK_NONE,
                                STAT_UPDATE_MODE_FULL));
  SENDS(Stat_SetFontParamsEventEx(1, 2, "Serif", 'd', 'e', 'f', 7, "h", 'i', texts, 'j', 'k', 'l',
                                  'm'));
  return failures == 0 ? 0 : 1;
}
