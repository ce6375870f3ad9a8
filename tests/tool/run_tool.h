// Runs the built fg_splice binary as a user would and captures what it prints.
#pragma once

#include <string>
#include <vector>

struct Tool_result {
    int exit_code = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs fg_splice with `args` (argv[0] is the binary's path) in directory `cwd` (empty: the
// current one), with the extra environment entries `env` ("NAME=value").
Tool_result run_tool(const std::vector<std::string>& args, const std::string& cwd = "",
                     const std::vector<std::string>& env = {});

// A fresh temporary directory, removed with its contents by the destructor.
class Temp_dir {
public:
    Temp_dir();
    ~Temp_dir();
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);
bool file_exists(const std::string& path);
