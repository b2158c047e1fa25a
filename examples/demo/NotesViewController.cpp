#include "NotesViewController.h"

#include "core/QKFeedback.h"
#include "kit/QKFont.h"
#include "kit/QKLabel.h"

#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>

namespace {
const char *const Notes[][2] = {
    {"Groceries", "Milk, eggs, two lemons, coffee beans, basil."},
    {"Trip to Lisbon", "Tram 28 early in the morning. Pastéis in Belém. Book the fado dinner."},
    {"Book club", "Chapter 7 to 12. Bring the question about the unreliable narrator."},
    {"Bike repair", "Rear brake pads worn. Chain needs oil. Ask about a new bell."},
    {"Ideas", "A calendar that shows only the next three things."},
};
}

void NotesViewController::viewDidLoad()
{
    setTitle(QStringLiteral("Notes"));
    QKView *root = view();
    root->setBackgroundColor(QColor(247, 247, 250));
    auto *heading = new QKLabel(QRectF(16, 12, 200, 34));
    heading->setText(title());
    heading->setFont(QKFont::boldSystem(28));
    root->addSubview(heading);

    m_list = new QListWidget(root);
    m_list->setFont(QKFont::system(17));
    m_list->setStyleSheet(QStringLiteral("QListWidget { border: none; background: white; }"
                                         "QListWidget::item { padding: 10px; border-bottom: 1px solid #e4e4ea; }"
                                         "QListWidget::item:selected { background: #dcebff; color: black; }"));
    m_editor = new QPlainTextEdit(root);
    m_editor->setFont(QKFont::system(16));
    m_editor->setStyleSheet(QStringLiteral("QPlainTextEdit { border: none; background: white; padding: 8px; }"));
    for (const auto &note : Notes) {
        auto *item = new QListWidgetItem(QString::fromUtf8(note[0]), m_list);
        item->setData(Qt::UserRole, QString::fromUtf8(note[1]));
    }
    connect(m_list, &QListWidget::currentItemChanged, this, [this](QListWidgetItem *item) {
        m_editor->setPlainText(item ? item->data(Qt::UserRole).toString() : QString());
    });
    m_list->setCurrentRow(1);

    m_feedback = new QPushButton(QStringLiteral("Feedback"), root);
    m_feedback->setFont(QKFont::boldSystem(15));
    m_feedback->setStyleSheet(QStringLiteral("QPushButton { background: rgb(0, 122, 255); color: white; border: none;"
                                             " border-radius: 8px; padding: 6px 14px; }"));
    connect(m_feedback, &QPushButton::clicked, this, [] { QKFeedback::showFeedback(); });
    for (QWidget *widget : {static_cast<QWidget *>(m_list.data()), static_cast<QWidget *>(m_editor.data()),
                            static_cast<QWidget *>(m_feedback.data())})
        widget->show();
}

void NotesViewController::viewDidLayoutSubviews()
{
    const QSize size = view()->frame().size().toSize();
    const int header = 56;
    m_feedback->setGeometry(size.width() - 124, 12, 112, 34);
    const int listHeight = (size.height() - header) * 2 / 5;
    m_list->setGeometry(0, header, size.width(), listHeight);
    m_editor->setGeometry(0, header + listHeight + 1, size.width(), size.height() - header - listHeight - 1);
}
