/**
 * @file
 * @brief Symbol visibility and C linkage for the lumora libraries.
 *
 * Everything is built with hidden visibility; only what carries LUMORA_EXPORT
 * is part of the shared objects' interface.
 */
#ifndef LUMORA_EXPORT_H
#define LUMORA_EXPORT_H

/**
 * @def LUMORA_EXPORT
 * Marks a declaration as part of a shared object's interface: default
 * visibility with GCC and clang, nothing with other compilers.
 */
#if defined(__GNUC__) || defined(__clang__)
#define LUMORA_EXPORT __attribute__((visibility("default")))
#else
#define LUMORA_EXPORT
#endif

/**
 * @def LUMORA_EXTERN_C_BEGIN
 * Opens a block of declarations with C linkage: `extern "C" {` in C++,
 * nothing in C.
 */
/**
 * @def LUMORA_EXTERN_C_END
 * Closes the block that LUMORA_EXTERN_C_BEGIN opened.
 */
#ifdef __cplusplus
#define LUMORA_EXTERN_C_BEGIN extern "C" {
#define LUMORA_EXTERN_C_END }
#else
#define LUMORA_EXTERN_C_BEGIN
#define LUMORA_EXTERN_C_END
#endif

#endif /* LUMORA_EXPORT_H */
