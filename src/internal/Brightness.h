// The brightness subject of a requester, shared by the read, subscribe and
// unsubscribe forms.
#ifndef LUMORA_INTERNAL_BRIGHTNESS_H
#define LUMORA_INTERNAL_BRIGHTNESS_H

// The EX brightness subject ("Current" or "Changed") for the privileged
// client, whatever its letter case; null for any other requester. requester
// must not be null.
const char* GetBrightnessExSubject(const char* requester, bool current);

#endif
