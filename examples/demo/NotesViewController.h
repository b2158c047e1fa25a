#pragma once

#include "kit/QKViewController.h"

#include <QListWidget>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>

/// The demo app itself: a list of notes and an editor, plain Qt Widgets inside the
/// controller's view, and a button that opens feedback.
class NotesViewController : public QKViewController
{
    Q_OBJECT
public:
    using QKViewController::QKViewController;

    void viewDidLoad() override;
    void viewDidLayoutSubviews() override;

    QPushButton *feedbackButton() const { return m_feedback; }

private:
    QPointer<QListWidget> m_list;
    QPointer<QPlainTextEdit> m_editor;
    QPointer<QPushButton> m_feedback;
};
