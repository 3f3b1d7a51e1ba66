// A web request for the parser's tests: the environment, a body, and a private folder for uploads.
#pragma once

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fuzz/cgi_fuzz.h"
#include "ormel/cgi/cgi.h"

class CgiRequestTest : public testing::Test {
 protected:
  void TearDown() override {
    for (const char* name : {"CONTENT_TYPE", "CONTENT_LENGTH", "QUERY_STRING"}) unsetenv(name);
    EXPECT_TRUE(folder.empty()) << "a temporary file remains";
    EXPECT_EQ(fuzz::lowest_free_descriptor(), free_descriptor);
  }

  // Every variable with its repeats, one a line, as "name=value of LENGTH status STATUS".
  std::string parse(std::string_view body) {
    const int body_fd = memfd_create("body", MFD_CLOEXEC);
    EXPECT_EQ(write(body_fd, body.data(), body.size()), static_cast<ssize_t>(body.size()));
    lseek(body_fd, 0, SEEK_SET);
    settings.fstream = body_fd;
    const CgiRequest request(settings);
    close(body_fd);
    return fuzz::describe(request.vars());
  }
  // What becomes of a body that begins like this and never ends, as "name status STATUS" lines.
  std::string parse_endless(const std::string& begin) {
    std::signal(SIGPIPE, SIG_IGN);
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::thread client([&] {
      for (std::string data = begin; write(ends[1], data.data(), data.size()) > 0;) data.assign(65536, 'x');
    });
    settings.fstream = ends[0];
    settings.buffer_size = 65536;
    const CgiRequest request(settings);
    close(ends[0]);
    client.join();
    close(ends[1]);
    std::string text;
    for (cgi_var* var = request.find(nullptr); var; var = get_cgi_var(var, nullptr))
      text += std::string(var->name) + " status " + std::to_string(var->status) + "\n";
    return text;
  }
  void announce(const char* content_type) {
    setenv("CONTENT_TYPE", content_type, 1);
    setenv("CONTENT_LENGTH", "7", 1);  // only its presence counts
  }

  const int free_descriptor = fuzz::lowest_free_descriptor();
  fuzz::UploadFolder folder;
  cgi_settings settings = folder.settings(OVERRIDE_VAR_MODE, cgi_default_settings.upload_limit);
};

// Where a body is cut must not matter; these sizes put a cut at every place of the short bodies.
inline constexpr size_t READ_SIZES[] = {1, 2, 3, 5, 7, 2048};
