#include "QKKeyboard.h"

#include "QKNotificationCenter.h"

#include <QGuiApplication>
#include <QInputMethod>
#include <QRectF>

const QString QKKeyboard::WillShowNotification = QStringLiteral("UIKeyboardWillShowNotification");
const QString QKKeyboard::WillHideNotification = QStringLiteral("UIKeyboardWillHideNotification");
const QString QKKeyboard::FrameBeginUserInfoKey = QStringLiteral("UIKeyboardFrameBeginUserInfoKey");
const QString QKKeyboard::FrameEndUserInfoKey = QStringLiteral("UIKeyboardFrameEndUserInfoKey");

namespace {

bool tracking = false;
bool shown = false;
QRectF shownFrame;

// A hidden keyboard sits just below where it shows, as the platform reports it.
QRectF below(const QRectF &frame)
{
    return frame.translated(0, frame.height());
}

void post(const QString &name, const QRectF &begin, const QRectF &end)
{
    QKNotificationCenter::defaultCenter()->postNotification(
        name, {{QKKeyboard::FrameBeginUserInfoKey, begin}, {QKKeyboard::FrameEndUserInfoKey, end}});
}

} // namespace

bool QKKeyboard::isTracking()
{
    return tracking;
}

void QKKeyboard::startTracking()
{
    if (tracking || !qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        return;
    tracking = true;
    QInputMethod *input = QGuiApplication::inputMethod();
    shown = input->isVisible();
    shownFrame = shown ? input->keyboardRectangle() : QRectF();

    QObject::connect(input, &QInputMethod::visibleChanged, input, [input] {
        if (input->isVisible() == shown)
            return;
        shown = input->isVisible();
        if (shown) {
            // Some platforms only know the frame once the keyboard is up; the change of frame tells then.
            shownFrame = input->keyboardRectangle();
            if (!shownFrame.isEmpty())
                post(WillShowNotification, below(shownFrame), shownFrame);
        } else {
            post(WillHideNotification, shownFrame, below(shownFrame));
            shownFrame = QRectF();
        }
    });
    QObject::connect(input, &QInputMethod::keyboardRectangleChanged, input, [input] {
        const QRectF frame = input->keyboardRectangle();
        if (!shown || frame.isEmpty() || frame == shownFrame)
            return;
        const QRectF begin = shownFrame.isEmpty() ? below(frame) : shownFrame;
        shownFrame = frame;
        post(WillShowNotification, begin, frame);
    });
}
