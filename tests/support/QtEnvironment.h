// The application object of a test program that needs one for all of its tests:
//   const auto* const environment = testing::AddGlobalTestEnvironment(new
//   QtEnvironment<QApplication>);
// Its texts are the English ones, whatever the developer's language is.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "Common Sources/Localization.h"

namespace vardell::test {

template <typename Application>
class QtEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    qputenv("LC_ALL", "C.UTF-8");
    qunsetenv("LANGUAGE");
    application_ = std::make_unique<Application>(argc_, argv_);
    application_->setQuitOnLastWindowClosed(false);
    InstallTranslations(*application_);
  }
  void TearDown() override { application_.reset(); }

 private:
  int argc_ = 1;
  char name_[8] = "test";
  char* argv_[2] = {name_, nullptr};
  std::unique_ptr<Application> application_;
};

}  // namespace vardell::test
