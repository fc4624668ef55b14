#include "lib/check.h"

#include <cstdio>
#include <cstdlib>

#include "lib/log.h"

void dyp_check_failed(const char *expression, const char *file, int line, const char *function) {
    // Standard error first: the log may not be open yet, and the line must
    // survive even when syslog is unreachable.
    (void)fprintf(stderr, "dypd: %s:%d: %s: Assertion `%s' failed.\n", file, line, function,
                  expression);
    dyp_log(LOG_ERR, "%s:%d: %s: Assertion `%s' failed.", file, line, function, expression);
    abort();
}
