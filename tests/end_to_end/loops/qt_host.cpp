// An application of Qt that knows nothing of any monitor. Its commands come as lines on standard input, are
// obeyed in the loop's callback, and are answered with "done COMMAND": block SECONDS, turn SECONDS (a nested
// loop), dialog SECONDS (a modal dialog), exit.
#include <QApplication>
#include <QEventLoop>
#include <QMessageBox>
#include <QSocketNotifier>
#include <QTimer>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "tests/end_to_end/blocked_work.h"

namespace {

void turn(int milliseconds) {
  QEventLoop loop;
  QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
  loop.exec();
}

void showDialog(int milliseconds) {
  QMessageBox dialog;
  dialog.setText("Really?");
  QTimer::singleShot(milliseconds, &dialog, &QDialog::accept);
  dialog.exec();
}

void obey(const std::string& line) {
  std::istringstream words(line);
  std::string verb;
  double seconds = 0;
  words >> verb >> seconds;
  if (verb == "exit") return QApplication::quit();
  if (verb == "block") importAttachments(seconds);
  if (verb == "turn") turn(static_cast<int>(seconds * 1000));
  if (verb == "dialog") showDialog(static_cast<int>(seconds * 1000));
  std::printf("done %s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int count, char** arguments) {
  const QApplication application(count, arguments);
  QApplication::setQuitOnLastWindowClosed(false);
  std::cin.tie(nullptr);
  std::ios::sync_with_stdio(false);
  QSocketNotifier notifier(0, QSocketNotifier::Read);
  QObject::connect(&notifier, &QSocketNotifier::activated, [] {
    // What was read ahead raises no further notification.
    do {
      std::string line;
      if (!std::getline(std::cin, line)) return QApplication::quit();
      obey(line);
    } while (std::cin.rdbuf()->in_avail() > 0);
  });
  return QApplication::exec();
}
