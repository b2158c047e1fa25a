// A gallery of the stand-ins at phone size (393 x 852 points, pixel ratio 3): each
// control and a sample of each container, written as PNGs for a person to look at.

#include "kit/QKActionSheet.h"
#include "kit/QKActionSheetDelegate.h"
#include "kit/QKActivityIndicatorView.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKButton.h"
#include "kit/QKImageView.h"
#include "kit/QKLabel.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNavigationController.h"
#include "kit/QKRefreshControl.h"
#include "kit/QKSegmentedControl.h"
#include "kit/QKTableView.h"
#include "kit/QKTableViewCell.h"
#include "kit/QKTableViewDataSource.h"
#include "kit/QKTextField.h"
#include "kit/QKWindow.h"

#include <QApplication>
#include <QPainter>
#include <QtTest>

namespace {

const QSize PhonePixels(393 * 3, 852 * 3);

class Rows : public QKTableViewDataSource
{
public:
    int numberOfRowsInSection(QKTableView *, int) override { return 30; }
    QKTableViewCell *cellForRowAtIndexPath(QKTableView *table, const QKIndexPath &path) override
    {
        QKTableViewCell *cell = table->dequeueReusableCell(QStringLiteral("row"), path);
        cell->textLabel()->setText(QStringLiteral("Feedback item %1").arg(path.row() + 1));
        return cell;
    }
};

class Sheet : public QKActionSheetDelegate
{
public:
    void actionSheetDidDismissWithButtonIndex(QKActionSheet *, int) override {}
};

QImage sampleScreenshot()
{
    QImage image(393, 852, QImage::Format_RGB32);
    image.fill(QColor(238, 242, 250));
    QPainter painter(&image);
    painter.fillRect(0, 0, 393, 90, QColor(52, 120, 246));
    for (int i = 0; i < 8; ++i)
        painter.fillRect(20, 120 + i * 80, 353, 60, i % 2 ? Qt::white : QColor(226, 232, 244));
    return image;
}

// Distinct colours in an image region: a blank region has one.
int colours(const QImage &image, const QRect &region)
{
    QSet<QRgb> seen;
    for (int y = region.top(); y <= region.bottom(); y += 3)
        for (int x = region.left(); x <= region.right(); x += 3)
            seen.insert(image.pixel(x, y));
    return int(seen.size());
}

} // namespace

class TestGallery : public QObject
{
    Q_OBJECT

    QKWindow *m_window = nullptr;

    QImage save(const char *name)
    {
        QCoreApplication::processEvents();
        const QImage image = m_window->snapshot();
        image.save(QStringLiteral(MURMORA_TEST_OUTPUT "/gallery-%1.png").arg(QLatin1String(name)));
        return image;
    }

private slots:
    void initTestCase() { QKAnimation::setAnimationsEnabled(false); }

    void init()
    {
        m_window = new QKWindow(QSizeF(393, 852));
        m_window->makeKeyAndVisible();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
    }
    void cleanup() { delete m_window; }

    void controls()
    {
        auto *screen = new QKViewController;
        screen->setTitle(QStringLiteral("Controls"));
        screen->navigationItem()->setLeftBarButtonItem(
            new QKBarButtonItem(QStringLiteral("Back"), QKBarButtonItem::Done, {}));
        auto *send = new QKBarButtonItem(QStringLiteral("Send"), QKBarButtonItem::Plain, {});
        send->setEnabled(false);
        screen->navigationItem()->setRightBarButtonItem(send);
        m_window->setRootViewController(new QKNavigationController(screen));
        QKView *view = screen->view();

        auto *label = new QKLabel(QRectF(20, 16, 353, 0));
        label->setText(QStringLiteral("Your name will appear on the feedback you are sending."));
        label->setNumberOfLines(0);
        label->setTextColor(Qt::lightGray);
        label->sizeToFit();
        view->addSubview(label);
        auto *field = new QKTextField(QRectF(20, 80, 353, 31));
        field->setBorderStyle(QKTextField::BorderRoundedRect);
        field->setPlaceholder(QStringLiteral("Name"));
        view->addSubview(field);
        auto *filled = new QKTextField(QRectF(20, 121, 353, 31));
        filled->setBorderStyle(QKTextField::BorderRoundedRect);
        filled->setText(QStringLiteral("Ada Lovelace"));
        view->addSubview(filled);
        auto *segments =
            new QKSegmentedControl({QStringLiteral("Open"), QStringLiteral("Resolved"), QStringLiteral("All")});
        const QSizeF fit = segments->sizeThatFits(view->bounds().size());
        segments->setFrame(QRectF((393 - fit.width()) / 2, 170, fit.width(), fit.height()));
        segments->setSelectedSegmentIndex(0);
        view->addSubview(segments);
        auto *button = new QKButton(QKButton::System, QRectF(20, 215, 353, 34));
        button->setTitle(QStringLiteral("Continue"));
        view->addSubview(button);
        auto *disabled = new QKButton(QKButton::System, QRectF(20, 255, 353, 34));
        disabled->setTitle(QStringLiteral("Send Anonymously"));
        disabled->setEnabled(false);
        view->addSubview(disabled);
        auto *image = new QKImageView(sampleScreenshot());
        image->setFrame(QRectF(30, 310, 160, 347));
        image->setContentMode(QKImageView::ScaleAspectFit);
        image->setShadowOffset(QPointF(2, 2));
        image->setShadowOpacity(0.5);
        image->setShadowRadius(2);
        image->setShadowColor(Qt::black);
        view->addSubview(image);
        auto *spinner = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
        spinner->setCenter(QPointF(290, 480));
        view->addSubview(spinner);
        spinner->startAnimating();

        const QImage shot = save("controls");
        QCOMPARE(shot.size(), PhonePixels);
        // The bar's title and its items, the field, the segments and the picture are drawn.
        QVERIFY(colours(shot, QRect(0, 0, 1179, 132)) > 3);
        QVERIFY(colours(shot, QRect(60, 132 + 240, 1059, 93)) > 2);
        QVERIFY(colours(shot, QRect(300, 132 + 510, 580, 87)) > 2);
        QVERIFY(colours(shot, QRect(90, 132 + 930, 480, 1041)) > 3);
    }

    void tableWithPull()
    {
        auto *screen = new QKViewController;
        screen->setTitle(QStringLiteral("Your feedback"));
        m_window->setRootViewController(new QKNavigationController(screen));
        Rows rows;
        auto *table = new QKTableView(screen->view()->bounds());
        table->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
        table->registerClass<QKTableViewCell>(QStringLiteral("row"));
        table->setDataSource(&rows);
        screen->view()->addSubview(table);
        auto *refresh = new QKRefreshControl;
        table->addSubview(refresh);
        table->reloadData();
        refresh->beginRefreshing();
        const QImage shot = save("table");
        QCOMPARE(shot.size(), PhonePixels);
        QVERIFY(colours(shot, QRect(0, 132, 1179, 600)) > 3);
        table->setDataSource(nullptr);
    }

    void alertOverAScreen()
    {
        auto *screen = new QKViewController;
        m_window->setRootViewController(screen);
        auto *picture = new QKImageView(sampleScreenshot());
        picture->setFrame(screen->view()->bounds());
        screen->view()->addSubview(picture);
        auto *alert = new QKAlertView(QStringLiteral("Feedback sent"), QStringLiteral("Thank you for your feedback!"),
                                      QStringLiteral("OK"));
        alert->show();
        const QImage shot = save("alert");
        QCOMPARE(shot.size(), PhonePixels);
        // The card in the middle is lighter than the dimmed screen around it.
        QVERIFY(qGray(shot.pixel(589, 1278)) > qGray(shot.pixel(30, 1278)));
        alert->dismissWithClickedButtonIndex(0, false);
    }

    void menuOverAScreen()
    {
        auto *screen = new QKViewController;
        m_window->setRootViewController(screen);
        auto *picture = new QKImageView(sampleScreenshot());
        picture->setFrame(screen->view()->bounds());
        screen->view()->addSubview(picture);
        Sheet delegate;
        auto *sheet = new QKActionSheet(
            QStringLiteral("Feedback"), &delegate, QStringLiteral("Cancel"), QString(),
            {QStringLiteral("Send feedback"), QStringLiteral("Your feedback"), QStringLiteral("Settings")});
        sheet->showInView(screen->view());
        const QImage shot = save("menu");
        QCOMPARE(shot.size(), PhonePixels);
        // The sheet's white buttons sit at the bottom, over the dimmed screen.
        QCOMPARE(QColor(shot.pixel(589, 2500)), QColor(Qt::white));
        QVERIFY(qGray(shot.pixel(589, 300)) < 200);
        sheet->dismissWithClickedButtonIndex(sheet->cancelButtonIndex(), false);
    }
};

int main(int argc, char **argv)
{
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestGallery test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkgallery.moc"
