/* An application of the installed GObject API that needs no bus: the types,
 * the error domain and its D-Bus names, as a program built against the
 * installed headers and library sees them. */
#include <lumora-glib/lumora-glib.h>
#include <stdio.h>
#include <string.h>

static int fail(const char *what) {
  fprintf(stderr, "lumora-glib consumer: %s\n", what);
  return 1;
}

int main(void) {
  GError *error = g_error_new_literal(LUMORA_CLIENT_ERROR, LUMORA_CLIENT_ERROR_NO_DATA, "no data");
  char *name = g_dbus_error_encode_gerror(error);
  GFlagsClass *flags = g_type_class_ref(LUMORA_TYPE_SUBSCRIBE_FLAGS);
  GFlagsValue *with_value = g_flags_get_value_by_nick(flags, "with-value");
  int status = 0;

  if (strcmp(g_quark_to_string(LUMORA_CLIENT_ERROR), "lumora-client-error-quark") != 0)
    status = fail("the error domain's quark");
  else if (strcmp(name, "org.verdin.tv.lumora2.ClientError.NoData") != 0)
    status = fail("the D-Bus name of LUMORA_CLIENT_ERROR_NO_DATA");
  else if (with_value == NULL || with_value->value != LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE)
    status = fail("LumoraSubscribeFlags");
  else if (!g_type_is_a(LUMORA_TYPE_CLIENT, G_TYPE_OBJECT) || !G_TYPE_IS_FINAL(LUMORA_TYPE_SUBSCRIPTION))
    status = fail("the object types");
  else if (!G_TYPE_IS_ENUM(LUMORA_TYPE_CLIENT_ERROR))
    status = fail("LumoraClientError's type");
  g_type_class_unref(flags);
  g_free(name);
  g_error_free(error);
  if (status == 0) printf("lumora-glib consumer ok\n");
  return status;
}
