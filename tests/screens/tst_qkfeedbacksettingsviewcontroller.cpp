// The name screen driven as a person would: typing, tapping its buttons and Back.

#include "core/QKFeedback.h"
#include "kit/QKAnimation.h"
#include "kit/QKButton.h"
#include "kit/QKLabel.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNavigationController.h"
#include "kit/QKTextField.h"
#include "kit/QKTextMetrics.h"
#include "kit/QKWindow.h"
#include "screens/QKFeedbackSettingsViewController.h"

#include <QApplication>
#include <QClipboard>
#include <QLineEdit>
#include <QtTest>

// Notes every call; "init" only once the controls exist, and then fills in the saved name.
class RecordingDelegate : public QKFeedbackSettingsViewControllerDelegate
{
public:
    void settingsViewControllerInit(QKFeedbackSettingsViewController *screen) override
    {
        calls.append(screen->sendAnonymousButton() ? QStringLiteral("init") : QStringLiteral("early init"));
        screen->nameTextField()->setText(QStringLiteral("Ada"));
    }
    void settingsViewController(QKFeedbackSettingsViewController *, const QString &action) override
    {
        calls.append(action);
    }
    QStringList calls;
};

static void click(QKView *view)
{
    QTest::mouseClick(view, Qt::LeftButton, {}, view->bounds().center().toPoint());
}

static void type(QKTextField *field, const QString &text)
{
    click(field);
    QTest::keyClick(field->lineEdit(), Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(field->lineEdit(), text);
}

class TestSettingsViewController : public QObject
{
    Q_OBJECT

    QKWindow *m_window = nullptr;
    QPointer<QKNavigationController> m_stack;
    RecordingDelegate m_delegate;

    // Pushed as for a send or a comment, or else the root of a stack opened from the menu.
    QKFeedbackSettingsViewController *show(QKFeedbackSettingsViewControllerDelegate *delegate, bool pushed)
    {
        auto *screen = new QKFeedbackSettingsViewController;
        screen->setDelegate(delegate);
        m_stack = new QKNavigationController(pushed ? new QKViewController : screen);
        m_window->rootViewController()->presentViewController(m_stack, false);
        if (pushed) {
            screen->setExitOnBackTouched(false);
            m_stack->pushViewController(screen, false);
        }
        return screen;
    }
    void tapBack()
    {
        QKNavigationBar *bar = m_stack->navigationBar();
        const QKBarButtonItem *back = m_stack->topViewController()->navigationItem()->leftBarButtonItem();
        QTest::mouseClick(bar, Qt::LeftButton, {}, bar->rectForItem(back).center().toPoint());
    }

private slots:
    void init()
    {
        QKAnimation::setAnimationsEnabled(false);
        m_delegate.calls.clear();
        m_window = new QKWindow(QSizeF(393, 852));
        m_window->setRootViewController(new QKViewController);
        m_window->makeKeyAndVisible();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
        QKFeedback::sharedInstance()->setFeedbackIsShown(true);
    }
    void cleanup() { delete m_window; }

    void continueNeedsANameTypedByTheUser()
    {
        auto *screen = show(&m_delegate, false);
        QVERIFY(screen->exitOnBackTouched());
        QCOMPARE(screen->nameDescription()->text(),
                 QStringLiteral("Your name will appear on the feedback you are sending."));
        QCOMPARE(screen->nameTextField()->placeholder(), QStringLiteral("Name"));
        QCOMPARE(screen->continueButton()->titleForState(QKButton::Normal), QStringLiteral("Continue"));
        QCOMPARE(screen->sendAnonymousButton()->titleForState(QKButton::Normal), QStringLiteral("Send Anonymously"));
        QCOMPARE(screen->navigationItem()->leftBarButtonItem()->title(), QStringLiteral("Back"));
        QKButton *proceed = screen->continueButton();
        QVERIFY(!proceed->isEnabled()); // even with the saved name in the field
        QLineEdit *edit = screen->nameTextField()->lineEdit();
        type(screen->nameTextField(), QStringLiteral("   "));
        // Tabs, ideographic and no-break spaces are blanks too, as the flow trims them before saving.
        QGuiApplication::clipboard()->setText(QStringLiteral("\t \u3000\u00A0"));
        QTest::keyClick(edit, Qt::Key_V, Qt::ControlModifier);
        QCOMPARE(edit->text(), QStringLiteral("   \t \u3000\u00A0"));
        QVERIFY(!proceed->isEnabled());
        QTest::keyClicks(edit, QStringLiteral("J "));
        QVERIFY(proceed->isEnabled());
        QTest::keyClick(edit, Qt::Key_Backspace);
        QVERIFY(proceed->isEnabled());
        QTest::keyClick(edit, Qt::Key_Backspace);
        QVERIFY(!proceed->isEnabled());
        click(proceed); // disabled: nothing to report
        QCOMPARE(m_delegate.calls, QStringList{QStringLiteral("init")});
        type(screen->nameTextField(), QStringLiteral("Jane Appleseed"));
        QVERIFY(m_window->snapshot().save(QStringLiteral(MURMORA_TEST_OUTPUT "/name-screen.png")));
    }

    // The actions reach the delegate as their strings; Back closes the keyboard, then pops
    // a pushed screen or closes a stack opened from the menu (clearing the shown flag once
    // the dismissal is over), with any delegate.
    void actionsAndBack_data()
    {
        QTest::addColumn<bool>("pushed");
        QTest::addColumn<bool>("recording");
        QTest::newRow("pushed") << true << true;
        QTest::newRow("from the menu") << false << true;
        QTest::newRow("pushed, delegate without overrides") << true << false;
        QTest::newRow("from the menu, delegate without overrides") << false << false;
    }
    void actionsAndBack()
    {
        QFETCH(bool, pushed);
        QFETCH(bool, recording);
        QKFeedbackSettingsViewControllerDelegate plain;
        QPointer<QKFeedbackSettingsViewController> screen = show(recording ? &m_delegate : &plain, pushed);
        type(screen->nameTextField(), QStringLiteral("Grace"));
        click(screen->continueButton());
        click(screen->sendAnonymousButton());
        QVERIFY(screen->nameTextField()->isFirstResponder());
        QCOMPARE(m_window->topMostController(), m_stack);
        tapBack();
        if (recording)
            QCOMPARE(m_delegate.calls, (QStringList{QStringLiteral("init"), QStringLiteral("SendWithName"),
                                                    QStringLiteral("SendAnonymous"), QStringLiteral("")}));
        QVERIFY(!screen->nameTextField()->isFirstResponder());
        QVERIFY(QKFeedback::feedbackIsShown()); // not before a dismissal completes
        QTRY_VERIFY(!screen);
        QCOMPARE(m_window->topMostController(), pushed ? m_stack.data() : m_window->rootViewController());
        QTRY_COMPARE(QKFeedback::feedbackIsShown(), pushed);
        if (pushed) {
            QCOMPARE(m_stack->viewControllers().size(), 1);
            m_window->rootViewController()->dismissViewControllerAnimated(false);
        }
        QTRY_VERIFY(!m_stack);
    }

    void centredColumnFollowsTheWidth()
    {
        QKFeedbackSettingsViewController screen;
        QList<QRectF> wide;
        for (qreal width : {393.0, 200.0}) {
            screen.view()->setFrame(QRectF(0, 0, width, 600));
            screen.view()->layoutIfNeeded();
            const QList<QRectF> column{screen.nameDescription()->frame(), screen.nameTextField()->frame(),
                                       screen.continueButton()->frame(), screen.sendAnonymousButton()->frame()};
            const QSizeF fitted = screen.nameDescription()->sizeThatFits(QSizeF(width - 20, 0));
            QVERIFY(fitted.width() <= width - 20 && fitted.width() > width - 120);
            QCOMPARE(column[0], QRectF(width / 2 - fitted.width() / 2, 10, fitted.width(), fitted.height()));
            QCOMPARE(column[1].height(), screen.nameTextField()->sizeThatFits(QSizeF()).height());
            QCOMPARE(column[3].height(), screen.sendAnonymousButton()->sizeThatFits(QSizeF()).height());
            for (int i = 1; i < column.size(); ++i) {
                QCOMPARE(column[i].width(), fitted.width());
                QCOMPARE(column[i].center().x(), width / 2);
                QCOMPARE(column[i].top(), column[i - 1].bottom() + 10);
            }
            if (wide.isEmpty()) {
                wide = column;
                continue;
            }
            const qreal extra = column[0].height() - wide[0].height();
            QVERIFY(extra >= QKTextMetrics::lineHeight(screen.nameDescription()->font()));
            for (int i = 1; i < column.size(); ++i)
                QCOMPARE(column[i].top(), wide[i].top() + extra);
        }
        // Hidden buttons keep their place.
        const QRectF anonymous = screen.sendAnonymousButton()->frame();
        screen.continueButton()->setHidden(true);
        screen.sendAnonymousButton()->setHidden(true);
        screen.view()->setFrame(QRectF(0, 0, 200, 500));
        screen.view()->layoutIfNeeded();
        QCOMPARE(screen.sendAnonymousButton()->frame(), anonymous);
    }
};

int main(int argc, char **argv)
{
    // Snapshots at the pixel ratio of a phone.
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestSettingsViewController test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkfeedbacksettingsviewcontroller.moc"
