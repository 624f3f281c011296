// A process that uses named objects as it is told on standard input, a line for each operation, and answers
// each with a line that holds the result. At the end of its input it ends without closing anything.
#include <kova/message_queue.h>
#include <kova/shared_mutex.h>
#include <kova/shared_rwlock.h>
#include <kova/shared_semaphore.h>

#include <unistd.h>

#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::map<std::string, int> g_Mutexes;
std::map<std::string, int> g_Semaphores;
std::map<std::string, std::unique_ptr<KovaSharedReadWriteLock>> g_Locks;
std::map<std::string, int> g_Queues;

int OpenSemaphore(const std::string& name, std::istream& words) {
    std::vector<int> values;
    for (int value; words >> value;) values.push_back(value);
    return KovaSharedSemaphoreNCreate(&g_Semaphores[name], name.c_str(), values.data(),
                                      static_cast<int>(values.size()));
}

int Wait(const std::string& name, std::istream& words) {
    int operation = 0;
    unsigned int position = 0;
    words >> operation >> position;
    return KovaSharedSemaphoreWait(&g_Semaphores[name], operation, position);
}

/// By a thread that ends without unlocking.
int LockAndEnd(int& mutex) {
    int result = -1;
    std::thread([&] { result = KovaSharedMutexLock(&mutex); }).join();
    return result;
}

int OpenReadWriteLock(const std::string& name) {
    g_Locks[name] = std::make_unique<KovaSharedReadWriteLock>(name.c_str());
    return g_Locks[name]->GetError();
}

int Send(const std::string& name, std::istream& words) {
    std::string text;
    words >> text;
    return KovaQueueWrite(g_Queues[name], text.data(), static_cast<int>(text.size()), 1);
}

int Receive(const std::string& name) {
    char buffer[8192];
    return KovaQueueRead(g_Queues[name], buffer, sizeof buffer, 0);
}

using Operation = std::function<int(const std::string& name, std::istream& words)>;

const std::map<std::string, Operation> kOperations = {
    {"open-mutex", [](auto& name, auto&) { return KovaSharedMutexCreate(&g_Mutexes[name], name.c_str()); }},
    {"close-mutex", [](auto& name, auto&) { return KovaSharedMutexDestroy(&g_Mutexes[name], name.c_str()); }},
    {"persist-mutex", [](auto& name, auto&) { return KovaSharedMutexSetPersistent(&g_Mutexes[name]); }},
    {"lock", [](auto& name, auto&) { return KovaSharedMutexLock(&g_Mutexes[name]); }},
    {"unlock", [](auto& name, auto&) { return KovaSharedMutexUnlock(&g_Mutexes[name]); }},
    {"lock-and-end", [](auto& name, auto&) { return LockAndEnd(g_Mutexes[name]); }},
    {"open-semaphore", OpenSemaphore},
    {"persist-semaphore",
     [](auto& name, auto&) { return KovaSharedSemaphoreSetPersistent(&g_Semaphores[name]); }},
    {"wait", Wait},
    {"open-rwlock", [](auto& name, auto&) { return OpenReadWriteLock(name); }},
    {"begin-read", [](auto& name, auto&) { return g_Locks[name]->BeginRead() ? 0 : -1; }},
    {"begin-write", [](auto& name, auto&) { return g_Locks[name]->BeginWrite() ? 0 : -1; }},
    {"open-queue", [](auto& name, auto&) { return g_Queues[name] = KovaQueueOpen(name.c_str()); }},
    {"send", Send},
    {"receive", [](auto& name, auto&) { return Receive(name); }},
};

}  // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string operation;
        std::string name;
        words >> operation >> name;
        std::cout << kOperations.at(operation)(name, words) << std::endl;
    }
    _exit(0);
}
