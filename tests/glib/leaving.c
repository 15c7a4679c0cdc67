/* A C application that leaves with its client and a subscription still
 * referenced: the end of the process gives back the client's start of the
 * service API, which tells the service to forget the subscription.
 * Usage: leaving SUBJECT; prints "subscribed" and returns 0. */
#include <lumora-glib/lumora-glib.h>
#include <stdio.h>

int main(int argc, char **argv) {
  GError *error = NULL;
  LumoraClient *client;
  LumoraSubscription *subscription;

  if (argc != 2) return 2;
  client = lumora_client_get_default();
  subscription = lumora_client_subscribe(client, argv[1], LUMORA_SUBSCRIBE_FLAGS_NONE, &error);
  if (subscription == NULL) {
    fprintf(stderr, "leaving: %s\n", error->message);
    g_error_free(error);
    return 1;
  }
  printf("subscribed\n");
  /* Neither is unreferenced: exit() stops the service API. */
  return 0;
}
