// Desktop notifications: one JSON line each, appended to
// /var/spool/quorpkg/notifications, where the desktop picks them up.
#pragma once

#include <string>

namespace quor {

// Appends {"time":<seconds since the epoch>,"event":<event>,"package":<package>}.
bool appendNotification(const std::string& event, const std::string& package);

}  // namespace quor
