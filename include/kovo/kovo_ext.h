/**
 * @file
 * KOVO: functions beyond the fixed interface of kovo.h. The same conventions hold.
 */
#ifndef KOVO_KOVO_EXT_H_
#define KOVO_KOVO_EXT_H_

#include <kovo/kovo.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Sets the hardware concurrency figure of the process, from which the next kovoCreate sizes its
 * thread pool: max(figure, 2) - 1 threads, each serving one connection at a time. 0 asks the
 * platform again (the default). Transfers wait for the network, not for a core, so a program
 * that wants N connections on any machine sets N + 1.
 */
KOVO_API void kovoSetHardwareConcurrency(uint32_t figure);

/**
 * Sets the domain under which the URLs of storage parts count as S3 when they are signed
 * (signature version 2), process-wide: a host equal to domain is path style ("/bucket/key"), a
 * host below it is virtual-hosted style (its first label is the bucket). A port is not part of the
 * domain. Null or empty restores the public S3 domain with its regional forms.
 * Returns 0, or KOVO_ERROR_INVALID_PARAMETERS for a text that cannot be a host name.
 */
KOVO_API kovo_error kovoSetS3Endpoint(const char* domain);

#ifdef __cplusplus
}
#endif

#endif /* KOVO_KOVO_EXT_H_ */
