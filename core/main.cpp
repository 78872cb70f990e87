#include <signal.h>

#include <QApplication>

#include "Common Sources/Localization.h"
#include "Common Sources/TestHooks.h"
#include "core/Agent.h"
#include "core/Environment.h"
#include "core/StartUp.h"
#include "core/UserInterface.h"
#include "platform/linux/AvahiDiscovery.h"
#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxSession.h"
#include "platform/linux/LinuxStatusBar.h"
#include "platform/linux/LinuxSystem.h"
#include "platform/linux/WindowClasses.h"
#include "platform/linux/XcbDesktop.h"
#include "platform/linux/XcbFrontApplication.h"
#include "platform/linux/XcbHotKeys.h"
#include "platform/linux/XcbScreens.h"
#include "platform/linux/XcbWindowOwners.h"

int main(int, char** argv) {
  using namespace vardell;
  int argc = 1;  // no arguments are taken, and Qt must not take any either
  CleanEnvironment();
  signal(SIGPIPE, SIG_IGN);
  QApplication application(argc, argv);
  application.setApplicationName(QStringLiteral("Vardell"));
  application.setQuitOnLastWindowClosed(false);
  InstallTranslations(application);

  LinuxSystem system;
  LinuxPreferences preferences;
  LinuxSession session;
  XcbWindowOwners windowOwners(WindowOwners);
  LinuxProcesses processes(session, {[&] { return windowOwners.Owners(); }, WindowClasses});
  AvahiDiscovery discovery;
  XcbHotKeys hotKeys;
  XcbFrontApplication frontApplication;
  XcbScreens screens;
  Agent agent(
      {processes, session, system, preferences, discovery, hotKeys, frontApplication, screens},
      MonotonicNow, SecondLength());
  LinuxStatusBar statusBar;
  UserInterfaceWindows windows(agent, statusBar);
  return RunAgent(agent, {[&] { return QApplication::exec(); }, [&] { QApplication::quit(); }});
}
