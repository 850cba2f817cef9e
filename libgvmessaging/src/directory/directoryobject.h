#pragma once

#include <memory>

#include <gvmessaging/api.h>
#include <gvtype/object.h>

#include "src/directory/directory.h"

namespace gv::directory {

/// A directory as service 1, which callers in this process and in others use alike:
///
///     service(name) -> entry          registerService(entry) -> id    unregisterService(id)
///     services() -> entries           serviceReady(id)                announceEndpoints(texts)
///     signals serviceAdded(id, name) and serviceRemoved(id, name)
///
/// Who registers is who the handshake said it is, else `own`: what an entry says of machine,
/// process and session counts for nothing. None of the methods blocks. The signals are emitted on
/// the event loop, one at a time in the order of the changes: a handler connected in this process
/// that may wait is to be connected Queued, else it holds up the others.
GVMESSAGING_API Object<Empty> makeDirectoryObject(const std::shared_ptr<Directory>& directory,
                                                  const Registrant& own);

}  // namespace gv::directory
