// replication/secure_channel.h: two services prove their accounts to each other before an operation crosses.
//
// The security package (platform/security.h) gives opaque tokens, which travel as MSG_CONTEXT_REQUEST and
// MSG_CONTEXT_REPLY. The result is used once, on the accepting side, to keep out anonymous callers; nothing is signed
// or sealed with it. Functions that return an int give 0 for success and 1 for failure, which is logged.
// Threads: any; one object by one thread at a time.
#pragma once

#include "interface/records.h"
#include "platform/security.h"
#include "platform/socket.h"

namespace qx {

// Acquires the credentials of the process's own logon session.
//   credentials  untouched on failure
//   returns      0; 0x80090304 when the session can't be found out; the package's code
[[nodiscard]] platform::SecurityStatus getLuidForProc(platform::SecurityCredentials& credentials,
                                                      platform::CredentialsUse use);

// The initiator's passes until the package is content.
//   context  deleted on failure
//   id       stands in the headers
[[nodiscard]] int createContext(platform::IConnection& connection, const platform::SecurityCredentials& credentials,
                                platform::SecurityContext& context, const ScheduleGuid& id);

// The accepting side's passes, and the refusal of anonymous callers. Any other account that the package accepts passes.
//   context  deleted on failure; on success the caller deletes it when the connection ends
[[nodiscard]] int acceptContext(platform::IConnection& connection, const platform::SecurityCredentials& credentials,
                                platform::SecurityContext& context);

}  // namespace qx
