// The application object of a test program that needs one for all of its tests: to be included is
// enough. Its texts are the English ones, whatever the developer's language is.
#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <memory>

#include "Common Sources/Localization.h"

namespace vardell::test {

class QtEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    qputenv("LC_ALL", "C.UTF-8");
    qunsetenv("LANGUAGE");
    application_ = std::make_unique<QApplication>(argc_, argv_);
    application_->setQuitOnLastWindowClosed(false);
    InstallTranslations(*application_);
  }
  void TearDown() override { application_.reset(); }

 private:
  int argc_ = 1;
  char name_[8] = "test";
  char* argv_[2] = {name_, nullptr};
  std::unique_ptr<QApplication> application_;
};

inline const auto* const kQtEnvironment = testing::AddGlobalTestEnvironment(new QtEnvironment);

}  // namespace vardell::test
