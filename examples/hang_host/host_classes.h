// The classes by which a host answers the monitor, found by name.
#pragma once

#include <string>

struct HostOptions {
  std::string email = "someone@" QBV_MAIL_DOMAIN;
  bool keepsLogs = true;
};

// Defines them and names the host's bundle. Once, before signing in.
void defineHostClasses(const HostOptions& options);
