// platform/standard_streams.h: what a program makes sure of before it opens anything.
//
// Threads: called first thing in main(), ahead of all threads.
#pragma once

namespace platform {

// Puts the null device in the place of each standard stream (descriptors 0 to 2) that whoever started the program left
// closed. The next file or connection would else take its number, and get what is printed. Reading or writing there
// fails, as it does where the stream is closed.
void FillStandardStreams();

// From now on a write that the host answers by a signal fails by its code, instead of ending this process: one to a pipe
// or socket whose reader has gone (SIGPIPE), one beyond the size that a file may have (SIGXFSZ, see RLIMIT_FSIZE).
// Children are started with the signals' usual effects (platform/process.h).
void LetWritesFail();

}  // namespace platform
