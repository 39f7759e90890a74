// SPDX-License-Identifier: Apache-2.0
// server_address.h: the server text of an upload, checked and brought into the form that a URL takes.
//
// Used by: transfer, and the host for other servers. The text comes from an operator or from the module; whatever else
// it contains must not become part of a URL.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace card {

// "host", "host:port", "[v6]", "[v6]:port" for a URL; nothing when 'server' is none of what transfer.h names.
std::optional<std::string> url_authority(std::string_view server);

}  // namespace card
