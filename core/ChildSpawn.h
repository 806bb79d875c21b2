#pragma once

#include <sys/types.h>

// Starts the child with vfork: it shares our address space until exec
// instead of copying it, which a fork of a process holding Qt's libraries
// pays for on every run. Unlike posix_spawn, this lets the child ask to be
// ended with us (PR_SET_PDEATHSIG): a child must not outlive the process
// that runs it, whether that ends normally, through _Exit or by a signal,
// SIGKILL included. It gets SIGTERM, so the tools can end their own helpers.
// The child gets default signal dispositions, an empty mask, a process
// group of its own, the three streams, the working folder, and no other
// descriptor of ours. Between vfork and exec it makes system calls only.
// Returns 0 or the error number of the failed step (the child is then
// reaped).
int spawnChild(pid_t* pid, const char* path, char* const* argv, char* const* envp, const char* cwd,
               const int streams[3]);
