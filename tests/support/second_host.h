/// A second host beside this one, joined to it by a cable: a thread with a network of its own, in which the
/// link kl1 ends; the other end, kl0, is here. Both are up and have no addresses. Several hosts need cables
/// of different names.
#ifndef KOVA_TESTS_SUPPORT_SECOND_HOST_H
#define KOVA_TESTS_SUPPORT_SECOND_HOST_H

#include <functional>
#include <memory>
#include <string>

/// Runs a shell command in the network of the calling thread; the test fails if the command does.
void Shell(const std::string& command);

class SecondHost {
  public:
    explicit SecondHost(const std::string& cable = "kl");
    ~SecondHost();
    SecondHost(const SecondHost&) = delete;
    SecondHost& operator=(const SecondHost&) = delete;

    /// Runs `work` over there and waits for its end. A socket stays in the network where it was made.
    void Do(const std::function<void()>& work);

  private:
    struct Worker;
    const std::string m_Here;
    std::unique_ptr<Worker> m_Worker;
};

#endif
