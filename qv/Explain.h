#pragma once

#include "qv/Peer.h"
#include "qv/Request.h"

namespace qv {

/// What happened in a request without a usable answer and what to try, in one or more lines.
std::string explainNoAnswer(const tRequest& request, const tResult& result, const tPeerOptions& options);

} // namespace qv
