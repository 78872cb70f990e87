// An io_context that runs on a thread, for tests that talk to it over real sockets.
#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <future>
#include <thread>

namespace vardell::test {

class NetworkThread {
 public:
  NetworkThread() : thread_([this] { context_.run(); }) {}
  ~NetworkThread() {
    context_.stop();
    thread_.join();
  }

  boost::asio::io_context& Context() { return context_; }

  // Runs `action` on the thread and waits for it; what it throws is thrown here.
  void Run(const std::function<void()>& action) {
    std::packaged_task<void()> task(action);
    std::future<void> done = task.get_future();
    boost::asio::post(context_, [&task] { task(); });
    done.get();
  }

 private:
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
  std::thread thread_;
};

}  // namespace vardell::test
