// service/service_account.h: the account that the service is configured to run under.
//
// Services of different nodes authenticate each other by their accounts, and one that stands for the machine alone is
// nobody elsewhere: operations on nodes ask here before they contact any.
// Threads: any; takes no lock and leaves no registry handle open.
#pragma once

namespace qx {

// Whether the service has to be taken for one that runs under "LocalSystem" (any case of letters): its record says so,
// or manager, service or record can't be read. True is logged, and reported to the event log as an error.
//   returns  Deliberate: false also when there is no memory to look at the record, which is only logged
[[nodiscard]] bool CheckIfRunningAsLocalSystem();

}  // namespace qx
