/// `kova queue`: sends to message queues and receives from them. The queue stays.
#ifndef KOVA_TOOLS_QUEUE_H
#define KOVA_TOOLS_QUEUE_H

#include <cstdint>
#include <optional>
#include <string>

struct QueueSendOptions {
    std::string name;
    std::optional<std::string> text;  ///< "-" is standard input, as is nothing at all
    std::string file;                 ///< instead of the text; empty: none
    int type = 1;
    int timeout_ms = 0;  ///< limit of the wait while the queue is full; 0: none
};

struct QueueReceiveOptions {
    std::string name;
    int type = 0;        ///< 0: any; negative: the lowest up to its amount
    int timeout_ms = 0;  ///< limit of the wait for each message; 0: none
    uint64_t count = 1;  ///< messages to receive; 0: go on
    bool hex = false;    ///< never as text
};

/// Both make the queue if there is none, and return the exit code. The name is not empty.
int QueueSend(const QueueSendOptions& options);
int QueueReceive(const QueueReceiveOptions& options);

#endif
