// platform/standard_streams.h: what a program makes sure of before it opens anything.
//
// Threads: called first thing in main(), ahead of all threads.
#pragma once

namespace platform {

// Puts the null device in the place of each standard stream (descriptors 0 to 2) that whoever started the program left
// closed. The next file or connection would else take its number, and get what is printed.
void FillStandardStreams();

// From now on a write to a pipe or socket whose reader has gone fails, instead of ending this process by SIGPIPE.
// Children are started with the signal's usual effect (platform/process.h).
void OutliveReaders();

}  // namespace platform
