/* The device's platform library: logging, configuration files, device facts and book metadata.
 *
 * This header is the contract between the statistics library and the platform. On a device the
 * firmware brings the implementation; the host implementation lives in platform/corvane.
 *
 * Texts and records that a function returns belong to the platform: read them, never free them, and
 * copy what you keep, since the next call of the same kind on the same thread may overwrite them.
 * All functions may be called from any thread. When memory runs out a C++ exception
 * (std::bad_alloc) may leave; nothing else is thrown.
 */

#ifndef CORVANE_CORVANE_H_
#define CORVANE_CORVANE_H_

#if defined(__GNUC__)
#define CORVANE_API __attribute__((visibility("default")))
#define CORVANE_PRINTF(text, arguments) __attribute__((format(printf, text, arguments)))
#else
#define CORVANE_API
#define CORVANE_PRINTF(text, arguments)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Logging ---- */

/* The calling process's id; right in a forked child too. Read it, never write it. */
extern CORVANE_API int g_process_pid;

/* Writes one log line to standard error, as a single write of at most 4096 bytes (a longer line
 * ends in "..."), and never waits for a reader:
 *
 *   2031-05-04T07:08:09.123Z 1 [4711] src/events:42 int Function(): the message
 *
 * that is the time in UTC, the level, the process id, `file` with `line`, `function` and the
 * printed `format`. `level` is 1 for errors and higher for less important lines; lines above the
 * number in the environment variable CORVANE_LOG_LEVEL (1 when it is not set, and in a program that
 * runs with more rights than its user) are left out. Null texts read as empty; control characters
 * come out as '?'. Preserves the caller's errno and raises no SIGPIPE.
 *
 * What standard error does not take at once is dropped, and so are equal lines beyond a hundred
 * within one second of the clock, times apart. A later line tells how many were. */
CORVANE_API void vm_print_log2(int level, const char* file, int line, const char* function,
                               const char* format, ...) CORVANE_PRINTF(5, 6);

/* ---- Configuration files: `key=value` lines with `#` comments ---- */

typedef struct CorvaneConfig CorvaneConfig;

typedef struct CorvaneState {
  /* /mnt/ext1/system/config/global.cfg, read when it is first used. Owned by the platform: not to
   * be closed. */
  CorvaneConfig* global_config;
} CorvaneState;

/* The platform library's exported state. */
extern CORVANE_API CorvaneState g_corvane;

/* Opens and reads the file at `path`, an absolute path of the device. A file that is missing, is
 * larger than 1 MiB or can't be read counts as empty. Returns null for a null path or for `flags`
 * other than 0; every function below accepts that null and answers with its default. Release with
 * CloseConfigNoSave. */
CORVANE_API CorvaneConfig* OpenConfig(const char* path, int flags);

/* The text stored under `key`, or `default_value` when there is none; `key=` stores the empty text.
 * It stays valid until the configuration is refreshed or closed, by whichever thread. */
CORVANE_API const char* ReadString(CorvaneConfig* config, const char* key,
                                   const char* default_value);

/* The decimal number stored under `key`, or `default_value` when there is none that fits an int. */
CORVANE_API int ReadInt(CorvaneConfig* config, const char* key, int default_value);

/* Releases `config` without writing anything back. Null is allowed. */
CORVANE_API void CloseConfigNoSave(CorvaneConfig* config);

/* Reads the file of `config` again. Null is allowed and does nothing. */
CORVANE_API void RefreshConfig(CorvaneConfig* config);

/* ---- Device facts ---- */

/* Never null, and read afresh on each call. */
CORVANE_API const unsigned char* GetDeviceID(void); /* at least 16 bytes */
CORVANE_API const char* GetSerialNumber(void);      /* "" when there is none */
CORVANE_API const char* GetDeviceModel(void);       /* an 11-character prefix, then the model */
CORVANE_API const char* GetSoftwareVersion(void);
CORVANE_API int GetCustomizedPartner(void);             /* the partner's number, 0 for none */
CORVANE_API const char* GetCustomizedPartnerName(void); /* the partner's name, "" for none */

/* ---- Sensors and keys ---- */

/* Orientation codes count the quarter turns by which the device is turned clockwise: 0 upright
 * to 3.
 */

/* Reads the accelerometer and returns the orientation code that follows from it (the screen's when
 * the device lies flat), or -1 when there is no sensor. Each of the three may be null; the others
 * receive the reading in milli-g: x to the right of the screen, y up, z towards the reader. */
CORVANE_API int ReadGSensor(int* x, int* y, int* z);

/* The orientation code that the screen is set to. */
CORVANE_API int GetOrientation(void);

/* Fills the first `count` entries of both arrays (either may be null) with the action names of
 * mapping set `mapping_set` (0 to 2), one entry for each button index from 0 to 31; null means that
 * none is assigned. A name is one leading character and then the action, as in "@KA_next". */
CORVANE_API void GetKeyMappingEx(int mapping_set, const char** first_actions,
                                 const char** second_actions, int count);

/* The buttons that the device has: bit n is set when button index n exists. */
CORVANE_API unsigned int QueryDeviceButtons(void);

/* ---- Book metadata ---- */

/* Any text may be null: the book does not say. What the host platform puts into the fields whose
 * meaning is the platform's is said in brackets; docs/book-metadata.md has the details. */
typedef struct BookInfo {
  int file_type;            /* 1: a book */
  const char* path;         /* the path of the book, as the platform knows it */
  const char* language;     /* its language code */
  const char* primary_name; /* goes into a record's first list [the first author] */
  const char* names[10];    /* go into a record's second list [the other authors and helpers] */
  int n1;                   /* [the year of publication, or 0] */
  short n2;                 /* [the number in the series, or 0] */
  const char* s1;           /* [the title] */
  const char* s2;           /* [the series] */
  const char* s3;           /* [the publisher] */
  const char* isbn;         /* its International Standard Book Number */
} BookInfo;

/* The description of the book at `path`, looked up like the path of a configuration file when it is
 * absolute. Null when there is no such file, when it is no book, or when the book is damaged. */
CORVANE_API const BookInfo* GetBookInfo(const char* path);

/* The ISBN of the book at `path`, or null when it has none or there is no such book. */
CORVANE_API const char* GetBookISBN(const char* path);

#ifdef __cplusplus
}
#endif

#endif /* CORVANE_CORVANE_H_ */
