/// TCP connections: what the commands need beside the library.
#ifndef KOVA_TOOLS_STREAM_H
#define KOVA_TOOLS_STREAM_H

#include <chrono>

/// Waits until `fd` is readable or its peer has closed, for `ms` milliseconds, without limit if negative.
/// Unlike the library's wait it leaves no trace record when nothing comes.
bool WaitReadable(int fd, int ms);

/// Says "no more" to the peer and drops what it still sends until it closes, for `limit` at most. Closing
/// with data unread would reset the connection instead, and the peer could lose what it has not read yet.
void FinishSending(int fd, std::chrono::milliseconds limit);

#endif
