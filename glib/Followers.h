// The subjects that subscriptions follow, and their registration with the C
// library: one library subscription per subject and kind (with or without
// the current value), whose changes are handed to every subscription of it.
#ifndef LUMORA_GLIB_FOLLOWERS_H
#define LUMORA_GLIB_FOLLOWERS_H

#include "ClientInternal.h"

namespace lumora::glib {

// Where one subscription's changes go: a weak reference to it and the main
// context it was made in. Reference-counted: the subscription holds one,
// the table one while it follows, each delivery on its way one.
struct Target;

// A target for subscription, in the calling thread's thread-default main
// context; the caller holds its one reference.
Target* NewTarget(LumoraSubscription* subscription);
void ReleaseTarget(Target* target);

// Adds target to the followers of subject (of its kind), telling the C
// library when it is the first. A with-value target that joins others is
// first told the value they were told last. False with *error set when the
// library refused.
bool Follow(Target* target, const char* subject, bool withValue, GError** error, internal::LogSite site);
// Removes target; the C library is told when it was the last of its subject
// and kind. Once it returns, no new delivery to target is posted.
void Unfollow(Target* target, const char* subject, bool withValue);

// In the subscription's main context: one change for it (LumoraSubscription.cpp).
void DeliverChange(LumoraSubscription* subscription, const char* data);

}  // namespace lumora::glib

#endif  // LUMORA_GLIB_FOLLOWERS_H
