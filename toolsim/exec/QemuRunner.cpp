#include "QemuRunner.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace OstrandSim {

namespace {

const QemuMachine kMachines[] = {
    {"microbit", 16000000},    // nRF51: 16 MHz core clock
    {"mps2-an385", 25000000},  // Cortex-M3
    {"mps2-an386", 25000000},  // Cortex-M4
    {"mps2-an500", 25000000},  // Cortex-M7
    {"mps2-an505", 20000000},  // Cortex-M33
};

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Turns a child's log of failure into one line for the user.
std::string oneLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  for (char& c : text) {
    if (c == '\n') c = ' ';
  }
  return text.empty() ? "no message" : text;
}

}  // namespace

const QemuMachine* findMachine(const std::string& name) {
  for (const QemuMachine& m : kMachines) {
    if (m.name == name) return &m;
  }
  return nullptr;
}

std::string QemuRunner::findExecutable(const std::string& name) {
  if (name.find('/') != std::string::npos) return ::access(name.c_str(), X_OK) == 0 ? name : "";
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

QemuRunner::QemuRunner(QemuRunConfig config, StepConsumer& consumer)
    : config_(std::move(config)), consumer_(consumer) {}

QemuRunner::~QemuRunner() { stop(); }

void QemuRunner::start() {
  if (reader_.joinable()) throw std::runtime_error("The target is already started");
  const std::string qemu = findExecutable(config_.qemu);
  if (qemu.empty()) {
    throw std::runtime_error(config_.qemu +
                             " not found: install the Debian package qemu-system-arm "
                             "(apt-get install qemu-system-arm)");
  }
  const QemuMachine* machine = findMachine(config_.machine);
  if (machine == nullptr && config_.coreClockHz == 0) {
    throw std::runtime_error("Unknown emulated machine '" + config_.machine + "'");
  }
  if (config_.icountShift > 10) throw std::runtime_error("icount shift must be 0 to 10");
  image_ = std::make_unique<ProgramImage>(config_.program);

  ClockModel clock;
  clock.nsPerInstruction = 1u << config_.icountShift;
  clock.sysTickClockHz = config_.coreClockHz != 0 ? config_.coreClockHz : machine->coreClockHz;
  parser_ = std::make_unique<QemuLogParser>(*image_, clock, consumer_);
  parser_->setStopFlag(&halt_);

  char dirTemplate[] = "/tmp/ostrand-qemu-XXXXXX";
  if (::mkdtemp(dirTemplate) == nullptr) {
    throw std::runtime_error(std::string("Cannot make a directory for the emulator: ") +
                             std::strerror(errno));
  }
  fifoDir_ = dirTemplate;
  const std::string fifo = fifoDir_ + "/exec.log";
  if (::mkfifo(fifo.c_str(), 0600) != 0) {
    const std::string why = std::strerror(errno);
    std::filesystem::remove_all(fifoDir_);
    throw std::runtime_error("Cannot make the emulator's log pipe: " + why);
  }
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

  std::vector<std::string> args = {
      qemu, "-M", config_.machine, "-display", "none", "-monitor", "none", "-serial", "null",
      "-icount", "shift=" + std::to_string(config_.icountShift) + ",sleep=off", "-singlestep",
      "-d", "exec,nochain,int,trace:memory_region_ops_write", "-D", fifo, "-kernel",
      config_.program};
  {
    std::lock_guard<std::mutex> lock(mutex_);
    readerReady_ = false;
    quit_ = false;
    error_ = nullptr;
  }
  ended_ = false;
  reader_ = std::thread([this, args] {
    try {
      spawn(args);
    } catch (...) {
      std::lock_guard<std::mutex> lock(mutex_);
      error_ = std::current_exception();
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      readerReady_ = true;
    }
    cv_.notify_all();
    if (pid_.load() > 0) readerMain();
  });
  std::unique_lock<std::mutex> lock(mutex_);
  cv_.wait(lock, [this] { return readerReady_; });
  if (error_) {
    std::exception_ptr error = error_;
    lock.unlock();
    stop();
    std::rethrow_exception(error);
  }
}

void QemuRunner::spawn(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const std::string errPath = fifoDir_ + "/stderr";
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error(std::string("Cannot start the emulator: ") + std::strerror(errno));
  if (pid == 0) {
    // Only async-signal-safe calls from here on. The emulator dies with
    // the thread that made it, which lives as long as the runner.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    const int in = ::open("/dev/null", O_RDONLY);
    const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in >= 0) ::dup2(in, 0);
    if (err >= 0) {
      ::dup2(err, 1);
      ::dup2(err, 2);
    }
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  pid_ = pid;
}

void QemuRunner::readerMain() {
  const std::string fifo = fifoDir_ + "/exec.log";
  const int fd = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  // A large pipe lets QEMU run ahead while we parse, and lets each read
  // take many lines at once.
  if (fd >= 0) ::fcntl(fd, F_SETPIPE_SZ, 1 << 20);
  std::ofstream tee;
  if (!config_.teeLogPath.empty()) tee.open(config_.teeLogPath, std::ios::binary | std::ios::trunc);
  std::vector<char> chunk(1 << 18);
  bool eof = fd < 0;
  for (;;) {
    uint64_t budget = 0;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      cv_.wait(lock, [this] { return quit_ || pendingRun_; });
      if (quit_) break;
      budget = budget_;
    }
    parser_->setBudget(budget);
    RunEnd end = RunEnd::kLimit;
    try {
      parser_->feed({});
      while (parser_->budget() > 0 && !halt_.load()) {
        if (eof) {
          parser_->finish();
          ended_ = true;
          break;
        }
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        const int ready = ::poll(fds, 2, 200);
        if (ready < 0 && errno != EINTR) throw std::runtime_error("poll failed");
        if (fds[1].revents & POLLIN) {
          uint64_t drained;
          (void)!::read(wakeFd_, &drained, sizeof drained);
        }
        if (fds[0].revents & (POLLIN | POLLHUP)) {
          const ssize_t n = ::read(fd, chunk.data(), chunk.size());
          if (n > 0) {
            if (tee.is_open()) tee.write(chunk.data(), n);
            parser_->feed(std::string_view(chunk.data(), static_cast<size_t>(n)));
            // QEMU writes a line at a time; reading again at once would cost
            // a system call per line or two. A short pause lets the pipe
            // fill, so each read takes a large block.
            if (static_cast<size_t>(n) < chunk.size() / 4) ::usleep(300);
          } else if (n == 0) {
            eof = true;
          }
        } else if (ready == 0) {
          // QEMU that failed before it opened the log never hangs up.
          int status = 0;
          if (::waitpid(pid_.load(), &status, WNOHANG) == pid_.load()) {
            pid_ = -1;
            eof = true;
            const std::string message = oneLine(readFile(fifoDir_ + "/stderr"));
            if (parser_->lines() == 0) throw std::runtime_error("The emulator failed: " + message);
          }
        }
        instructions_ = parser_->instructions();
        timeNs_ = parser_->timeNs();
      }
      if (ended_) end = RunEnd::kEnded;
      else if (halt_.load()) end = RunEnd::kHalted;
      consumer_.onPause();
    } catch (...) {
      std::lock_guard<std::mutex> lock(mutex_);
      error_ = std::current_exception();
      ended_ = true;
    }
    instructions_ = parser_->instructions();
    timeNs_ = parser_->timeNs();
    if (tee.is_open()) tee.flush();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pendingRun_ = false;
      lastEnd_ = end;
    }
    cv_.notify_all();
  }
  if (fd >= 0) ::close(fd);
}

RunEnd QemuRunner::run(uint64_t instructions) {
  if (!reader_.joinable()) throw std::runtime_error("The target is not started");
  if (ended_.load()) return RunEnd::kEnded;
  halt_ = false;
  running_ = true;
  std::unique_lock<std::mutex> lock(mutex_);
  budget_ = instructions;
  pendingRun_ = true;
  cv_.notify_all();
  cv_.wait(lock, [this] { return !pendingRun_; });
  running_ = false;
  const RunEnd end = lastEnd_;
  if (error_) {
    std::exception_ptr error = error_;
    error_ = nullptr;
    std::rethrow_exception(error);
  }
  return end;
}

void QemuRunner::halt() {
  halt_ = true;
  if (wakeFd_ >= 0) {
    const uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
  }
}

void QemuRunner::killChild() {
  const pid_t pid = pid_.exchange(-1);
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

void QemuRunner::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    quit_ = true;
  }
  halt();
  cv_.notify_all();
  killChild();
  if (reader_.joinable()) reader_.join();
  killChild();
  if (wakeFd_ >= 0) {
    ::close(wakeFd_);
    wakeFd_ = -1;
  }
  if (!fifoDir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(fifoDir_, ignored);
    fifoDir_.clear();
  }
  ended_ = true;
}

}  // namespace OstrandSim
