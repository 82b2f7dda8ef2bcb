// Linked into the targets whose inputs make Hoplift log (hlog writes every line to the system
// log and to standard error): thousands of runs a second stay out of the system log. This
// stands in for the C library's syslog() inside the fuzzer's executable only; standard error
// is closed by the test's -close_fd_mask.
#include <syslog.h>

extern "C" void syslog(int, const char *, ...) {}
