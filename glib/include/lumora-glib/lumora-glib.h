/* The GObject API of the context service: the one header applications include. */
#ifndef LUMORA_GLIB_H
#define LUMORA_GLIB_H

#define __LUMORA_GLIB_H_INSIDE__

#include <lumora-glib/lumora-glib-export.h>
#include <lumora-glib/lumora-client-error.h>
#include <lumora-glib/lumora-subscription.h>
#include <lumora-glib/lumora-client.h>
#include <lumora-glib/lumora-enum-types.h>

#undef __LUMORA_GLIB_H_INSIDE__

#endif /* LUMORA_GLIB_H */
