// Launches of applications that the device does not know.

#ifndef USAGE_STAT_CLIENT_APPLICATIONS_H_
#define USAGE_STAT_CLIENT_APPLICATIONS_H_

// Reports the start of the application at `path` with the text `arguments`, neither of them null.
// Returns the result of sending. Not exported, and at global scope: its signature text in log lines
// carries no namespace.
int Stat_StartOutsideApplicationEvent(const char* path, const char* arguments);

#endif  // USAGE_STAT_CLIENT_APPLICATIONS_H_
