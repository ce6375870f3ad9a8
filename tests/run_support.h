// Runs a built binary as a user would, with stdout and stderr captured whole, and the scratch
// files around such runs. Shared by the suites that run fg_splice and fg_info.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct Run_result {
    int exit_code = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

namespace run_support_detail {

inline std::string slurp(FILE* file)
{
    std::string text;
    std::rewind(file);
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        text.append(buffer, n);
    return text;
}

}  // namespace run_support_detail

// Runs `binary` with `args` (argv[0] is the binary's path) in directory `cwd` (empty: the
// current one), with the extra environment entries `env` ("NAME=value").
inline Run_result run_binary(const char* binary, const std::vector<std::string>& args, const std::string& cwd = "",
                             const std::vector<std::string>& env = {})
{
    Run_result result;
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0)
            _exit(127);
        for (const std::string& entry : env)
            putenv(const_cast<char*>(entry.c_str()));
        std::vector<char*> argv{const_cast<char*>(binary)};
        for (const std::string& arg : args)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(binary, argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = run_support_detail::slurp(out);
    result.err = run_support_detail::slurp(err);
    std::fclose(out);
    std::fclose(err);
    return result;
}

// A fresh temporary directory, removed with its contents by the destructor.
class Temp_dir {
public:
    Temp_dir()
    {
        char pattern[] = "/tmp/fg_test_XXXXXX";
        path_ = mkdtemp(pattern) ? pattern : "";
    }
    ~Temp_dir()
    {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    Temp_dir(const Temp_dir&) = delete;
    Temp_dir& operator=(const Temp_dir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

inline bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
