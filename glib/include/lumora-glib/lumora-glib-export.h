/* The mark of every function liblumora-glib exports; everything else stays
 * hidden (the library is built with -fvisibility=hidden). */
#ifndef LUMORA_GLIB_EXPORT_H
#define LUMORA_GLIB_EXPORT_H

#if !defined(__LUMORA_GLIB_H_INSIDE__) && !defined(LUMORA_GLIB_COMPILATION)
#error "Only <lumora-glib/lumora-glib.h> can be included directly."
#endif

#define LUMORA_GLIB_EXPORT __attribute__((visibility("default"))) extern

#endif /* LUMORA_GLIB_EXPORT_H */
