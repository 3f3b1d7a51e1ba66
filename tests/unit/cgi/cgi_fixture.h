// A web request for the parser's tests: the environment, a body, and a private folder for uploads.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/mman.h>
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
