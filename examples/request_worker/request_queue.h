// Requests on their way from the server to the worker.
#ifndef KOVA_EXAMPLES_REQUEST_QUEUE_H
#define KOVA_EXAMPLES_REQUEST_QUEUE_H

#include <kova/local_mutex.h>
#include <kova/local_semaphore.h>
#include <kova/request.h>

#include <memory>
#include <queue>
#include <utility>

class RequestQueue {
  public:
    void Put(std::unique_ptr<KovaRequest> request) {
        m_Lock.Lock();
        m_Requests.push(std::move(request));
        m_Lock.Unlock();
        m_Waiting.Post();
    }

    // The next request; waits for one. Null when the queue is closed and empty.
    std::unique_ptr<KovaRequest> Take() {
        m_Waiting.Wait();
        std::unique_ptr<KovaRequest> request;
        m_Lock.Lock();
        if (!m_Requests.empty()) {
            request = std::move(m_Requests.front());
            m_Requests.pop();
        }
        m_Lock.Unlock();
        return request;
    }

    // Ends one worker, when it has taken what is left.
    void Close() { m_Waiting.Post(); }

  private:
    KovaLocalMutex m_Lock;
    KovaLocalSemaphore m_Waiting;  // one for each request, and one for the end
    std::queue<std::unique_ptr<KovaRequest>> m_Requests;
};

#endif
