// The container a host puts at the root of its window: attaching its content, the
// shake and the shortcut opening the menu, the data source going to the façade, and
// the shake detector on readings made up like a phone's.

#include "base/QKDocumentsDirectory.h"
#include "core/QKFeedback.h"
#include "core/QKFeedbackController.h"
#include "core/QKShakeDetector.h"
#include "data/QKLocalFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKAnimation.h"
#include "kit/QKWindow.h"

#include <QApplication>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QVector3D>
#include <QtTest>

#include <cmath>
#include <functional>
#include <numbers>

struct Sample
{
    qint64 t;
    QVector3D a;
};
using Trace = QList<Sample>;

static const QVector3D Held(0, 6.3f, 7.6f);
static const QVector3D Flat(0, 0, 9.81f);

// Readings every `stepMs` for `durationMs`, with sensor noise of up to `noise` on top.
static Trace record(qint64 durationMs, qint64 stepMs, const std::function<QVector3D(qint64)> &reading,
                    qreal noise = 0.08)
{
    QRandomGenerator random(7);
    const auto jitter = [&] { return float(random.bounded(2 * noise) - noise); };
    Trace trace;
    for (qint64 t = 0; t < durationMs; t += stepMs)
        trace.append({t, reading(t) + QVector3D(jitter(), jitter(), jitter())});
    return trace;
}

static float wave(qint64 t, qint64 from, qint64 length, qreal hz, qreal amplitude)
{
    return t < from || t >= from + length
               ? 0.f
               : float(amplitude * std::sin(2 * std::numbers::pi * hz * (t - from) / 1000.0));
}

static Trace shake(qreal amplitude = 20, qreal hz = 6, qint64 length = 800, qint64 stepMs = 10, qreal noise = 0.08)
{
    return record(
        3000 + length, stepMs, [=](qint64 t) { return Held + QVector3D(wave(t, 1000, length, hz, amplitude), 0, 0); },
        noise);
}

static Trace twoShakes()
{
    return record(5000, 10, [](qint64 t) {
        return Held + QVector3D(wave(t, 1000, 600, 6, 20) + wave(t, 3000, 600, 6, 20), 0, 0);
    });
}

// Held with a tremor, lowered and turned flat, a thud with a bounce, then still.
static Trace setDown()
{
    return record(3500, 10, [](qint64 t) {
        if (t < 1000)
            return Held + QVector3D(0, wave(t, 0, 1000, 9, 0.3), 0);
        if (t < 1400) {
            const float s = float(t - 1000) / 400;
            return Held + (Flat - Held) * s + QVector3D(0, 0, -2 * std::sin(std::numbers::pi_v<float> * s));
        }
        const QMap<qint64, float> thud{{1400, 18}, {1410, -6}, {1420, 3}};
        return Flat + QVector3D(0, 0, thud.value(t));
    });
}

// On a table: one sharp spike that rings down within a few readings.
static Trace knock()
{
    return record(2000, 10, [](qint64 t) {
        const QMap<qint64, float> ring{{1000, 25}, {1010, -10}, {1020, 4}, {1030, -1.5f}};
        return Flat + QVector3D(0, 0, ring.value(t));
    });
}

static Trace walking()
{
    return record(10000, 10, [](qint64 t) {
        return Held + QVector3D(wave(t, 0, 10000, 1, 0.7), wave(t, 0, 10000, 2, 1.5), wave(t, 0, 10000, 4, 1));
    });
}

static void feed(QKShakeDetector *detector, const Trace &trace)
{
    for (const Sample &sample : trace)
        detector->addSample(sample.t, sample.a.x(), sample.a.y(), sample.a.z());
}

// Notes, when its view loads (as it is attached), whether `watched` was still attached.
class ProbeController : public QKViewController
{
public:
    QPointer<QKViewController> watched;
    bool watchedHadParent = true;
    bool watchedViewShown = true;

    void viewDidLoad() override
    {
        watchedHadParent = watched->parentViewController();
        watchedViewShown = watched->view()->superview();
    }
};

// Notes whether it was the façade's source when it was last given a name.
class NamedSource : public QKLocalFeedbackSource
{
public:
    bool namedWhileCurrent = false;

    void setUserName(const QString &userName) override
    {
        namedWhileCurrent = QKFeedback::dataSource().data() == this;
        QKLocalFeedbackSource::setUserName(userName);
    }
};

class TestFeedbackController : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    QKWindow *m_window = nullptr;
    QKFeedbackController *m_host = nullptr;
    const QKeySequence m_keys{Qt::CTRL | Qt::SHIFT | Qt::Key_F};

private slots:
    void initTestCase()
    {
        QKSetDocumentsDirectory(m_documents.path());
        QKAnimation::setAnimationsEnabled(false);
        m_window = new QKWindow(QSizeF(393, 852));
        m_host = new QKFeedbackController;
        QVERIFY(m_host->shortcut().isEmpty());
        m_host->setShortcut(m_keys); // before the view is there
        m_window->setRootViewController(m_host);
        m_host->setContentController(new QKViewController);
        m_window->makeKeyAndVisible();
        QApplication::setActiveWindow(m_window);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
        // No accelerometer on the machines tests run on; Qt's dummy one does not count.
        QVERIFY(!m_host->shakeDetector()->isActive());
    }
    void cleanupTestCase() { delete m_window; }

    void cleanup()
    {
        if (!QKActionSheet::visibleSheets().isEmpty()) {
            QKActionSheet *sheet = QKActionSheet::visibleSheets().first();
            sheet->dismissWithClickedButtonIndex(sheet->cancelButtonIndex(), false);
        }
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        m_host->setShowOnShake(true);
    }

    void attaching()
    {
        auto *content = new QKViewController;
        QPointer<QKViewController> guard(content);
        {
            QKFeedbackController controller(content);
            QVERIFY(controller.showOnShake());
            // Stored only until asked to attach it.
            QVERIFY(controller.childViewControllers().isEmpty());
            QVERIFY(!content->parentViewController());
            QVERIFY(controller.view()->subviews().isEmpty());

            controller.setContentController(content);
            QCOMPARE(controller.childViewControllers(), QList<QKViewController *>{content});
            QCOMPARE(content->parentViewController(), &controller);
            QCOMPARE(controller.view()->subviews(), QList<QKView *>{content->view()});
            QCOMPARE(content->view()->frame(), controller.view()->bounds());
            controller.view()->setFrame(QRectF(0, 0, 300, 500));
            QCOMPARE(content->view()->frame(), QRectF(0, 0, 300, 500));
        }
        QVERIFY(!guard);
        guard = new QKViewController;
        {
            QKFeedbackController controller(guard);
        }
        QVERIFY(!guard); // stored only, it goes with the controller too
    }

    void replacing()
    {
        QKFeedbackController controller;
        auto *first = new QKViewController;
        controller.setContentController(first);
        auto *second = new ProbeController;
        second->watched = first;
        controller.setContentController(second);

        QVERIFY(!second->watchedHadParent);
        QVERIFY(!second->watchedViewShown);
        QCOMPARE(controller.contentController(), second);
        QCOMPARE(controller.childViewControllers(), QList<QKViewController *>{second});
        QCOMPARE(controller.view()->subviews(), QList<QKView *>{second->view()});
        QVERIFY(!first->parent()); // handed back
        delete first;
    }

    void shakeOpensTheMenu_data()
    {
        QTest::addColumn<int>("subtype");
        QTest::addColumn<bool>("showOnShake");
        QTest::addColumn<bool>("detected");
        QTest::addColumn<bool>("shown");
        QTest::newRow("shake") << 1 << true << false << true;
        QTest::newRow("shake, not wanted") << 1 << false << false << false;
        QTest::newRow("no motion") << 0 << true << false << false;
        QTest::newRow("another motion") << 2 << true << false << false;
        QTest::newRow("detected shake, not wanted") << 1 << false << true << false;
        QTest::newRow("detected shake") << 1 << true << true << true;
    }
    void shakeOpensTheMenu()
    {
        QFETCH(int, subtype);
        QFETCH(bool, showOnShake);
        QFETCH(bool, detected);
        QFETCH(bool, shown);
        m_host->setShowOnShake(showOnShake);
        if (detected) {
            feed(m_host->shakeDetector(), shake());
        } else {
            m_host->motionEnded(subtype);
            m_host->motionEnded(subtype);
        }
        QCOMPARE(QKFeedback::feedbackIsShown(), shown);
        QCOMPARE(QKActionSheet::visibleSheets().size(), shown ? 1 : 0);
    }

    void dataSourceGoesToTheFacade()
    {
        QKFeedback::sharedInstance()->settings().insert(QStringLiteral("Name"), QStringLiteral("Ada"));
        auto source = QSharedPointer<NamedSource>::create();
        QKFeedbackController controller;
        controller.setDataSource(source);
        QCOMPARE(QKFeedback::dataSource().data(), source.data());
        QCOMPARE(source->userName(), QStringLiteral("Ada"));
        QVERIFY(source->namedWhileCurrent);
        QKFeedback::setDataSource({});
        QKFeedback::sharedInstance()->settings().remove(QStringLiteral("Name"));
    }

    void shortcutOpensTheMenu()
    {
        m_host->setShowOnShake(false);
        QTest::keySequence(m_window, m_keys);
        QVERIFY(QKFeedback::feedbackIsShown());
        QCOMPARE(QKActionSheet::visibleSheets().size(), 1);
        cleanup();

        m_host->setShortcut(QKeySequence());
        QTest::keySequence(m_window, m_keys);
        QVERIFY(!QKFeedback::feedbackIsShown());

        m_host->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_M));
        QTest::keySequence(m_window, QKeySequence(Qt::CTRL | Qt::Key_M));
        QVERIFY(QKFeedback::feedbackIsShown());
    }

    void detector_data()
    {
        QTest::addColumn<Trace>("trace");
        QTest::addColumn<QVariantMap>("settings");
        QTest::addColumn<int>("shakes");
        QTest::newRow("shake") << shake() << QVariantMap() << 1;
        QTest::newRow("fast shake read at 50 Hz") << shake(20, 8, 800, 20) << QVariantMap() << 1;
        QTest::newRow("shake read at 1 kHz by a noisy sensor") << shake(20, 6, 800, 1, 1) << QVariantMap() << 1;
        QTest::newRow("long shake") << shake(20, 5, 3000) << QVariantMap() << 1;
        QTest::newRow("two shakes 2 s apart") << twoShakes() << QVariantMap() << 2;
        QTest::newRow("two shakes, quiet for 3 s") << twoShakes() << QVariantMap{{"quietPeriodMs", 3000}} << 1;
        QTest::newRow("gentle shake") << shake(4) << QVariantMap() << 0;
        QTest::newRow("shake under a threshold of 50") << shake() << QVariantMap{{"threshold", 50}} << 0;
        QTest::newRow("shake in a window of 100 ms") << shake() << QVariantMap{{"windowMs", 100}} << 0;
        QTest::newRow("walking") << walking() << QVariantMap() << 0;
        QTest::newRow("set down on a table") << setDown() << QVariantMap() << 0;
        QTest::newRow("single knock") << knock() << QVariantMap() << 0;
        QTest::newRow("single knock, one jolt a shake") << knock() << QVariantMap{{"minimumJolts", 1}} << 1;
    }
    void detector()
    {
        QFETCH(Trace, trace);
        QFETCH(QVariantMap, settings);
        QFETCH(int, shakes);
        QKShakeDetector detector;
        for (auto it = settings.cbegin(); it != settings.cend(); ++it)
            QVERIFY(detector.setProperty(it.key().toUtf8().constData(), it.value()));
        QSignalSpy shaken(&detector, &QKShakeDetector::shaken);
        feed(&detector, trace);
        QCOMPARE(shaken.count(), shakes);
    }
};

QTEST_MAIN(TestFeedbackController)
#include "tst_qkfeedbackcontroller.moc"
