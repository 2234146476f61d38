#include "bench/net_process.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tolvar_bench {
namespace {

[[noreturn]] void becomeChild(std::vector<char*> arguments, int input, int output, int cpu) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  if (cpu >= 0) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(cpu), &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  execv("/proc/self/exe", arguments.data());
  _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, int cpu) {
  std::vector<std::string> all{"net_bench"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& argument : all) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error("cannot make a pipe");
  _pid = fork();
  if (_pid < 0) throw std::runtime_error("cannot start a process");
  if (_pid == 0) becomeChild(std::move(pointers), in[0], out[1], cpu);
  close(in[0]);
  close(out[1]);
  _input = in[1];
  _output = out[0];
}

ChildProcess::~ChildProcess() {
  if (_input >= 0) close(_input);
  if (_pid > 0) waitpid(_pid, nullptr, 0);
  close(_output);
}

std::string ChildProcess::readLine() {
  std::string line;
  char c = 0;
  while (read(_output, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

void ChildProcess::finish() {
  close(_input);
  _input = -1;
  int status = 0;
  waitpid(_pid, &status, 0);
  _pid = -1;
  if (status != 0) throw std::runtime_error("a process of the benchmark failed");
}

ProcessorTime processorTime(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  // The name in parentheses may hold spaces; utime and stime are the 12th and 13th fields after it.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  double user = 0;
  double system = 0;
  fields >> user >> system;
  const double second = static_cast<double>(sysconf(_SC_CLK_TCK));
  return {(user + system) / second, system / second};
}

double memoryBytes(pid_t pid, const std::string& field) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(field + ":")) return std::stod(line.substr(field.size() + 1)) * 1024;
  throw std::runtime_error("there is no " + field + " of process " + std::to_string(pid));
}

void resetPeakMemory(pid_t pid) {
  std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

}  // namespace tolvar_bench
