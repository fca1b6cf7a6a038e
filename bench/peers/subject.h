// The subject: the program under comparison, run as a child process that
// answers one text line per request line (protocol: bench/README.md). A child
// process keeps the harness free of the subject's toolchain and ABI.
#pragma once
#include <signal.h>
#include <sys/wait.h>

#include "common.h"

namespace peers {

class Subject {
 public:
  explicit Subject(const std::string& command) : command_(command) {
    if (command.empty()) return;
    signal(SIGPIPE, SIG_IGN);
    int to[2], from[2];
    if (pipe(to) || pipe(from)) abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(to[0], 0);
      dup2(from[1], 1);
      for (int fd : {to[0], to[1], from[0], from[1]}) close(fd);
      execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(to[0]);
    close(from[1]);
    out_ = fdopen(to[1], "w");
    in_ = fdopen(from[0], "r");
  }
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;
  ~Subject() {
    if (!out_) return;
    fputs("quit\n", out_);
    fclose(out_);
    fclose(in_);
    waitpid(pid_, nullptr, 0);
  }

  bool present() const { return out_ != nullptr; }
  bool failed() const { return dead_; }  // it was started and ended early

  // Sends one request; returns the answer line, "" when the child is gone.
  std::string ask(const std::string& request) {
    if (!out_ || dead_) return "";
    fprintf(out_, "%s\n", request.c_str());
    fflush(out_);
    std::string line;
    for (int c; (c = fgetc(in_)) != '\n';) {
      if (c == EOF) {
        fprintf(stderr, "subject ended at request: %s\n", request.c_str());
        dead_ = true;
        return "";
      }
      if (c != '\r') line += static_cast<char>(c);
    }
    return line;
  }

  bool setup(const std::string& request) { return ask(request) == "ok"; }

  // "time <ms>" -> "time <samples> <min ns> <median ns>". The round's median
  // is entered once per round, the minimum alongside.
  bool time(double ms, double& min_ns, std::vector<double>& medians) {
    char b[64];
    snprintf(b, sizeof b, "time %g", ms);
    const std::string a = ask(b);
    long n = 0;
    double lo = 0, med = 0;
    if (sscanf(a.c_str(), "time %ld %lf %lf", &n, &lo, &med) != 3 || n < 1 || !(lo > 0))
      return false;
    if (!(min_ns > 0) || lo < min_ns) min_ns = lo;
    medians.push_back(med);
    return true;
  }

  // "probe <n> <index>..." -> "probe <value>..."
  std::vector<double> probe(const std::vector<size_t>& at) {
    std::string r = "probe " + std::to_string(at.size());
    for (size_t i : at) r += " " + std::to_string(i);
    std::istringstream s(ask(r));
    std::string word;
    std::vector<double> v;
    s >> word;
    while (s >> word) v.push_back(strtod(word.c_str(), nullptr));
    if (v.size() != at.size()) v.assign(at.size(), NAN);
    return v;
  }

 private:
  std::string command_;
  pid_t pid_ = -1;
  FILE *out_ = nullptr, *in_ = nullptr;
  bool dead_ = false;
};

}  // namespace peers
