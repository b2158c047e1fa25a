#pragma once

#include <QDir>
#include <QString>

#include <functional>

class QKFeedbackItemDetailsViewController;
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
    /// Something that answers the sent feedback from outside the app (the team's dashboard),
    /// run after the comment; the tour then shows the answer in the app. False: it failed.
    void setAnswer(std::function<bool()> answer) { m_answer = std::move(answer); }

private:
    bool step(const char *name, bool done);
    // Opens "Your feedback" from the menu, then its newest item; null when that fails.
    QKFeedbackItemDetailsViewController *openNewest(bool pictures);
    void tap(const QPointF &point);
    template <class Condition>
    bool waitFor(Condition condition, int milliseconds = 5000);

    QKWindow *m_window;
    QDir m_directory;
    int m_step = 0;
    std::function<bool()> m_answer;
};
