#include "host/app/TerminalPairingConfirmer.hpp"

#include <unistd.h>

#include <asio/read_until.hpp>
#include <asio/use_awaitable.hpp>
#include <iostream>
#include <istream>

namespace kelvaron::host {

TerminalPairingConfirmer::TerminalPairingConfirmer(const Executor& executor)
    : input_(executor, ::dup(STDIN_FILENO)) {}

asio::awaitable<bool> TerminalPairingConfirmer::confirm(std::string deviceName, std::string code) {
  std::cout << "\n\"" << deviceName << "\" asks to pair, showing the code " << code
            << ".\nDoes the device show the same code? [y/N] " << std::flush;
  // A wait the gate gives up on is cancelled here, and its answer is never read.
  co_await asio::async_read_until(input_, pending_, '\n', asio::use_awaitable);
  std::istream lines(&pending_);
  std::string answer;
  std::getline(lines, answer);
  co_return answer == "y" || answer == "Y" || answer == "yes";
}

}  // namespace kelvaron::host
