/* Each argument that must not be null is null once, each in a call of its own: compilers warn of
 * every one. */

#include "usage_stat.h"

void Nulls(void);
void Nulls(void) {
  const struct Margins margins = {0, 0, 0, 0};
  const struct MarginsEx texts = {"", "", "", "", "", "", "", ""};
  const char* none[] = {0};
  Stat_StartApplicationEvent(1, 2, 3, 0);
  Stat_StartApplicationByPathEvent(1, 0, 2, none);
  Stat_StartApplicationByPathEvent(1, "", 2, 0);
  Stat_GetBookId(0);
  Stat_SendStartOpenBookEvent(0, 1, 2, 0);
  Stat_SendOpenBookEvent(0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0, 0);
  Stat_StartTtsEvent(1, 2, 0, "", 3, 4);
  Stat_StartTtsEvent(1, 2, "", 0, 3, 4);
  Stat_UseDictionaryEvent(1, 0);
  Stat_GoToURLEvent(1, 0);
  Stat_SetFontParamsEvent(1, 2, 0, 'd', 'e', 3, margins, 'g', STAT_LINE_BREAK_NONE,
                          STAT_UPDATE_MODE_FULL);
  Stat_SetFontParamsEventEx(1, 2, 0, 'd', 'e', 'f', 3, "", 'i', texts, 'j', 'k', 'l', 'm');
  Stat_SetFontParamsEventEx(1, 2, "", 'd', 'e', 'f', 3, 0, 'i', texts, 'j', 'k', 'l', 'm');
}
