/* Loads the library named by its argument and prints how much memory of its own that costs the
 * process: the pages of its mappings that relocations and initialisers have written to, which the
 * kernel counts as anonymous. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  if (argc != 2 || !dlopen(argv[1], RTLD_NOW)) {
    fprintf(stderr, "size-probe: %s\n", argc == 2 ? dlerror() : "usage: size-probe LIBRARY");
    return 1;
  }
  FILE* maps = fopen("/proc/self/smaps", "r");
  if (!maps) {
    perror("size-probe: /proc/self/smaps");
    return 1;
  }
  char line[4096];
  int ours = 0;
  long total_kib = 0;
  long kib;
  while (fgets(line, sizeof(line), maps)) {
    /* A mapping begins with its address range; lines about it follow, each with a colon. */
    const char* word_end = line + strcspn(line, " \n");
    if (word_end == line || word_end[-1] != ':') ours = strstr(line, argv[1]) != NULL;
    if (ours && sscanf(line, "Anonymous: %ld kB", &kib) == 1) total_kib += kib;
  }
  fclose(maps);
  printf("%ld\n", total_kib * 1024);
  return 0;
}
