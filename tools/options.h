// The command line of every program here: --options in any order, then words. --help prints
// what the program does and ends it with 0; an option that it does not know, or a word too
// many, is named on the standard error and ends it with 2.
#pragma once

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

namespace cli {

// An option by its name without dashes, and its value where none is given; a switch has none.
struct Option {
  const char* name;
  const char* standard;
};

class Line {
 public:
  // help begins with the line "usage: ...".
  Line(int argc, char** argv, const char* help, const std::vector<Option>& known, size_t most_words)
      : help_(help) {
    std::vector<option> table;
    for (const Option& o : known) {
      table.push_back({o.name, o.standard ? required_argument : no_argument, nullptr, 0});
      values_[o.name] = o.standard ? o.standard : "";
    }
    table.push_back({"help", no_argument, nullptr, 'h'});
    table.push_back({});
    // Where there are no options, words may be negative numbers: the first ends the options.
    const char* const order = known.empty() ? "+" : "";
    for (int code, index = 0; (code = getopt_long(argc, argv, order, table.data(), &index)) >= 0;) {
      if (code == 'h') {
        fputs(help, stdout);
        exit(0);
      }
      if (code != 0) wrong("");  // getopt_long has named it
      values_[table[static_cast<size_t>(index)].name] = optarg ? optarg : "1";
    }
    words_.assign(argv + optind, argv + argc);
    if (words_.size() > most_words) wrong("what is " + words_[most_words] + "?\n");
  }

  [[noreturn]] void wrong(const std::string& complaint) const {
    const std::string all = help_;
    fprintf(stderr, "%s%s\n", complaint.c_str(), all.substr(0, all.find('\n')).c_str());
    exit(2);
  }
  const std::string& operator[](const char* name) const { return values_.at(name); }
  bool has(const char* name) const { return !values_.at(name).empty(); }
  // The value as a number of at least least.
  double number(const char* name, double least) const {
    const std::string& text = values_.at(name);
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (end == text.c_str() || *end || !(value >= least && value <= 1e9))
      wrong("--" + std::string(name) + " takes a number of at least " + std::to_string(least) +
            "\n");
    return value;
  }
  const std::vector<std::string>& words() const { return words_; }
  // Word i; empty where there is none.
  std::string word(size_t i) const { return i < words_.size() ? words_[i] : ""; }

 private:
  const char* help_;
  std::map<std::string, std::string> values_;
  std::vector<std::string> words_;
};

// Whether a file can be written, before the work that fills it; a picture's name ends in
// .bmp. Changes none, leaves none.
inline bool writable(const std::string& path, bool picture) {
  const std::string end = path.size() < 4 ? "" : path.substr(path.size() - 4);
  if (picture && end != ".bmp" && end != ".BMP") return false;
  const bool there = access(path.c_str(), F_OK) == 0;
  FILE* file = fopen(path.c_str(), "ab");
  if (!file) return false;
  fclose(file);
  if (!there) remove(path.c_str());
  return true;
}

}  // namespace cli
