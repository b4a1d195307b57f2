/* The smallest program that reports something: the screen was turned. */

#include <stdio.h>
#include <string.h>
#include <usage_stat.h>

int main(void) {
  const int err = Stat_SendOrientationEvent(1);
  if (err > 0) fprintf(stderr, "the event is lost: %s\n", strerror(err));
  return err == 0 ? 0 : 1;
}
