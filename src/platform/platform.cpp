#include "platform/platform.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "boundscheck/bounds_check.h"

#if defined(__ANDROID__)
#include <android/log.h>
#include <sys/system_properties.h>
#endif

// The affinity call passes a 4-byte mask by number, as the phones' 32-bit kernel expects it.
#if defined(__arm__) && !defined(__aarch64__)
static_assert(__NR_sched_setaffinity == 241, "sched_setaffinity is system call 241 on 32-bit ARM");
#endif

#define LDC_DEFAULT_DUMP_DIR "/data/qvldc/"

void LdcLog(int iPriority, const char *pcFormat, ...)
{
    va_list args;
    va_start(args, pcFormat);
#if defined(__ANDROID__)
    __android_log_vprint(iPriority, LDC_LOG_TAG, pcFormat, args);
#else
    char acLine[4096];
    int iLen = vsnprintf(acLine, sizeof(acLine), pcFormat, args);
    if (iLen < 0) {
        iLen = 0;
    } else if ((size_t)iLen >= sizeof(acLine)) {
        iLen = (int)sizeof(acLine) - 1;
    }
    if (iLen > 0 && acLine[iLen - 1] == '\n') {
        iLen--;
    }
    char acOut[sizeof(acLine) + 32];
    const int iOut = snprintf(acOut, sizeof(acOut), "%c/%s: %.*s\n",
                              iPriority >= LDC_LOG_ERROR ? 'E' : 'I', LDC_LOG_TAG, iLen, acLine);
    if (iOut > 0) {
        fwrite(acOut, 1, (size_t)iOut, stderr);   // one write per line, so threads never interleave
    }
#endif
    va_end(args);
}

int LdcPropertyGet(const char *pcName, char *pcValue)
{
#if defined(__ANDROID__)
    return __system_property_get(pcName, pcValue);
#else
    char acEnv[256];
    if (strcpy_s(acEnv, sizeof(acEnv), pcName) != EOK) {
        pcValue[0] = '\0';
        return 0;
    }
    for (char *p = acEnv; *p != '\0'; p++) {
        if (*p == '.') {
            *p = '_';
        }
    }
    const char *pcEnv = getenv(acEnv);
    if (pcEnv == NULL) {
        pcValue[0] = '\0';
        return 0;
    }
    if (strncpy_s(pcValue, LDC_PROP_VALUE_MAX, pcEnv, LDC_PROP_VALUE_MAX - 1) != EOK) {
        pcValue[0] = '\0';
        return 0;
    }
    return (int)strlen(pcValue);
#endif
}

void LdcDumpDir(char *pcDir, size_t uCapacity)
{
    const char *pcEnv = NULL;
#if !defined(__ANDROID__)
    pcEnv = getenv("QVLDC_DUMP_DIR");
#endif
    if (pcEnv == NULL || pcEnv[0] == '\0') {
        (void)strcpy_s(pcDir, uCapacity, LDC_DEFAULT_DUMP_DIR);
        return;
    }
    const size_t uLen = strlen(pcEnv);
    if (sprintf_s(pcDir, uCapacity, "%s%s", pcEnv, pcEnv[uLen - 1] == '/' ? "" : "/") < 0) {
        (void)strcpy_s(pcDir, uCapacity, LDC_DEFAULT_DUMP_DIR);
    }
}

int32_t LdcGetTid(void)
{
    return (int32_t)syscall(__NR_gettid);
}

int32_t LdcSchedSetAffinity(int32_t iTid, const int32_t *piMask)
{
    return (int32_t)syscall(__NR_sched_setaffinity, (pid_t)iTid, (size_t)sizeof(*piMask), piMask);
}
