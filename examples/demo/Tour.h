#pragma once

#include <QDir>
#include <QString>

class QKWindow;
class QKFeedbackDataSource;

/// The scripted tour that `./dev.sh demo` runs without a display: it drives the demo
/// as a person would, at phone size, and writes a picture of every step.
class Tour
{
public:
    Tour(QKWindow *window, const QDir &directory) : m_window(window), m_directory(directory) {}

    /// Runs every step; false (with the reason on standard error) when one fails.
    bool run();

private:
    bool step(const char *name, bool done);
    void tap(const QPointF &point);
    template <class Condition>
    bool waitFor(Condition condition, int milliseconds = 5000);

    QKWindow *m_window;
    QDir m_directory;
    int m_step = 0;
};
