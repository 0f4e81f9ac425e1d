/* Kavlen engine: common definitions of the C interface.
 *
 * Every exported engine name starts with kvl_ and has C linkage. Records are
 * plain C structs whose field order and types are part of the contract: code
 * outside this library binds them by name and layout at run time.
 *
 * Status results are int32: 0 success, -1 bad argument or null handle,
 * -2 refused (invalid JSON, invalid data, out of memory). A null handle is
 * harmless everywhere.
 */
#ifndef KAVLEN_KVL_BASE_H
#define KAVLEN_KVL_BASE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define KVL_EXTERN_C extern "C"
#define KVL_BEGIN_DECLS extern "C" {
#define KVL_END_DECLS }
#else
#define KVL_EXTERN_C
#define KVL_BEGIN_DECLS
#define KVL_END_DECLS
#endif

#define KVL_API KVL_EXTERN_C __attribute__((visibility("default")))

/* The working surface of every layer, in units. */
#define KVL_SURFACE_W 1280
#define KVL_SURFACE_H 720

#endif
