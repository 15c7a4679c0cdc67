// The source badge of a television app: the label in the corner of the
// screen that says what the set is showing.
#ifndef TV_APP_TESTS_SOURCE_BADGE_H
#define TV_APP_TESTS_SOURCE_BADGE_H

#include <string>

/// The badge for a source value of the context service ({"Source":"HDMI1",
/// "Label":"Game console"}): its label, else its source, else "no signal".
std::string BadgeText(const char* sourceJson);

/// Reads the current source through the library (started by the caller with
/// Lumora_InitService()) and returns its badge; "no signal" when the service
/// fails, has no value, or does not answer within its time-out.
std::string SourceBadge();

#endif
