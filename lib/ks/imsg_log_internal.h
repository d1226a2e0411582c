// Internal: included by imsg_log.cpp, imsg_daemon.cpp and ks_wiring.cpp; never installed.
// The log layer's steps that the command and daemon logs share, and the one
// the message layer runs before each message of a daemon (through its
// service table).
#ifndef KS_IMSG_LOG_INTERNAL_H
#define KS_IMSG_LOG_INTERNAL_H

namespace ks {

// Whether path names a symbolic link, which no log may be; if so the refusal
// has been written to the current error stream.  An empty path is no link.
bool imsg_log_refuses_link(const char *path);

// Reopens the daemon log when it is due: a daemon, not suspended, and the
// hour since the last open has passed.
void imsg_reopen_daemon_log_when_due();

// imsg_drain_pipes without the complaint: nothing happens in a process that
// is not a daemon.
void imsg_drain_daemon_pipes();

} // namespace ks

#endif
