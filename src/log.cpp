#include "log.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include "agent_files.h"
#include "utility/file.h"
#include "utility/unix_helper.h"

namespace {

constexpr char kTimeFormat[] = "%F %T";
constexpr std::size_t kMessageLimit = 2048;  // bytes, terminating zero included
constexpr std::size_t kTimeLimit = 64;

utility::Descriptor open_log() {
  const std::string path = utility::CUnixHelper::get_norvak_path() + agent_files::kLog;
  return utility::Descriptor(
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, utility::kNewFileMode));
}

std::string time_stamp() {
  const std::time_t now = std::time(nullptr);
  char text[kTimeLimit + 1] = {};
  if (const std::tm* const local = std::localtime(&now)) {
    (void)std::strftime(text, kTimeLimit, kTimeFormat, local);
  }
  return text;
}

}  // namespace

void CUpdateLog::write_log(const char* format, ...) {
  char message[kMessageLimit + 1] = {};
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(message, kMessageLimit, format, arguments);
  va_end(arguments);

  const std::string line = "[" + time_stamp() + "]\t\t" + message + "\n";
  const utility::Descriptor log = open_log();
  if (log) (void)utility::write_all(log.get(), line.data(), line.size());
}

void CUpdateLog::write_space() {
  const utility::Descriptor log = open_log();
  if (!log) return;
  while (::flock(log.get(), LOCK_EX) != 0 && errno == EINTR) {
  }  // closing the file releases the lock
  (void)utility::write_all(log.get(), "\n", 1);
}
