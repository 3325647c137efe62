#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Runs the checks a C compiler can make of the interface; returns the first that fails, or null. */
const char* checkInterfaceFromC(void);

#ifdef __cplusplus
}
#endif
