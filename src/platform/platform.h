// The seams between the library and its host: logging, system properties, the dump directory,
// thread ids and processor affinity. On Android they call the system; elsewhere they follow the
// host contract (stderr log lines, environment variables) that outside tests rely on.
#ifndef LDC_PLATFORM_PLATFORM_H
#define LDC_PLATFORM_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#define LDC_LOG_TAG "ZB5QU_QVLDC"
#define LDC_LOG_INFO 4
#define LDC_LOG_ERROR 6

#define LDC_PROP_VALUE_MAX 92   // size of a system property value buffer, NUL included

// Android: __android_log_print(iPriority, "ZB5QU_QVLDC", ...).
// Host: one stderr line "I/ZB5QU_QVLDC: <message>" (or "E/" for errors), the trailing newline
// of the message dropped.
void LdcLog(int iPriority, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));

// Reads a system property into pcValue (LDC_PROP_VALUE_MAX bytes) and returns its length.
// Host: the environment variable named like the property with '.' replaced by '_'.
int LdcPropertyGet(const char *pcName, char *pcValue);

// Directory of the debug dumps, with a trailing '/': "/data/qvldc/", or on the host the
// directory in QVLDC_DUMP_DIR when that is set.
void LdcDumpDir(char *pcDir, size_t uCapacity);

// Id of the calling thread.
int32_t LdcGetTid(void);

// Raw sched_setaffinity with a single 32-bit mask word; returns 0 or -1 with errno set.
int32_t LdcSchedSetAffinity(int32_t iTid, const int32_t *piMask);

#endif
