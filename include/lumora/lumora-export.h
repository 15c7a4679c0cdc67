/* Symbol visibility for the lumora libraries.
 *
 * Everything is built with hidden visibility; only what carries LUMORA_EXPORT
 * is part of the shared objects' interface. */
#ifndef LUMORA_EXPORT_H
#define LUMORA_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define LUMORA_EXPORT __attribute__((visibility("default")))
#else
#define LUMORA_EXPORT
#endif

#ifdef __cplusplus
#define LUMORA_EXTERN_C_BEGIN extern "C" {
#define LUMORA_EXTERN_C_END }
#else
#define LUMORA_EXTERN_C_BEGIN
#define LUMORA_EXTERN_C_END
#endif

#endif /* LUMORA_EXPORT_H */
