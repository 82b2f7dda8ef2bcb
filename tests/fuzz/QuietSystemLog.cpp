// hlog writes every line to the system log and to standard error. In the fuzzers whose inputs
// make Hoplift log, this stands in for the C library's syslog() so that thousands of runs a
// second stay out of the system log; standard error is closed by the test's -close_fd_mask.
#include <syslog.h>

extern "C" void syslog(int, const char *, ...) {}
