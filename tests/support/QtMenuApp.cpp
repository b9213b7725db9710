// A Qt 6 window with the same menu bar as the GTK menu program (tests/support/MenuApp.cpp). Qt
// exports it as a dbusmenu when a com.canonical.AppMenu.Registrar runs on the session bus, as on
// a KDE desktop. Each triggered action appends "activated <name>" to the file named by
// $TOVU_MENU_LOG; "ready" is printed once the window is shown.

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QFile>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QTimer>
#include <cstdio>

namespace {

void record(const char* name) {
  QFile file(QString::fromLocal8Bit(qgetenv("TOVU_MENU_LOG")));
  if (!file.open(QIODevice::Append)) return;
  file.write(QByteArray("activated ") + name + "\n");
}

QAction* add(QMenu* menu, const char* title, const char* name, const char* shortcut = nullptr) {
  QAction* action = menu->addAction(QString::fromUtf8(title));
  if (shortcut) action->setShortcut(QKeySequence(QString::fromUtf8(shortcut)));
  QObject::connect(action, &QAction::triggered, [name] { record(name); });
  return action;
}

}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QMainWindow window;
  window.setWindowTitle("Qt Menu App");
  window.resize(400, 300);

  QMenu* file = window.menuBar()->addMenu("&File");
  add(file, "&New Window", "new-window", "Ctrl+N");
  file->addSeparator();
  QAction* toolbar = add(file, "Show &Toolbar", "show-toolbar");
  toolbar->setCheckable(true);
  toolbar->setChecked(true);
  file->addSeparator();
  auto* themes = new QActionGroup(&window);
  QAction* light = add(file, "&Light", "theme light");
  QAction* dark = add(file, "&Dark", "theme dark");
  for (QAction* theme : {light, dark}) {
    theme->setCheckable(true);
    themes->addAction(theme);
  }
  dark->setChecked(true);
  file->addSeparator();
  add(file, "&Print", "print")->setEnabled(false);
  add(file, "&Quit", "quit", "Ctrl+Q");

  QMenu* edit = window.menuBar()->addMenu("&Edit");
  add(edit, "&Copy", "copy", "Ctrl+C");
  add(edit, "&Find Next", "find-next", "F3");
  QMenu* zoom = edit->addMenu("&Zoom");
  add(zoom, "Zoom &In", "zoom-in", "Ctrl++");
  // Qt writes "&" as dbusmenu's "_" but leaves an underscore of the text as it is, which a reader
  // takes for a mnemonic: the text doubles the underscore the title means.
  add(zoom, "Reset __Zoom", "zoom-reset", "Ctrl+Shift+Backspace");

  window.show();
  QTimer::singleShot(0, [] {
    std::printf("ready\n");
    std::fflush(stdout);
  });
  return application.exec();
}
