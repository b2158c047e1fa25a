#pragma once

#include "../kit/QKGlobalKit.h"

#include <QList>
#include <QObject>
#include <QVector3D>

#include <optional>

class QAccelerometer;

/// Turns accelerometer readings into shakes. The acceleration swings from one turn
/// of direction to the next; a swing longer than threshold() is a jolt, and jolts
/// closer together than a few hundredths of a second (a knock ringing) count as one.
/// minimumJolts() jolts within windowMs() are a shake: shaken() is emitted, then
/// nothing more until quietPeriodMs() passed without a jolt, so one shake, however
/// long, is reported once. Walking swings too little, a phone set down on a table or
/// a knock jolts once.
///
/// Main thread only.
class MURMORA_EXPORT QKShakeDetector : public QObject
{
    Q_OBJECT
    Q_PROPERTY(qreal threshold READ threshold WRITE setThreshold)
    Q_PROPERTY(int windowMs READ windowMs WRITE setWindowMs)
    Q_PROPERTY(int minimumJolts READ minimumJolts WRITE setMinimumJolts)
    Q_PROPERTY(int quietPeriodMs READ quietPeriodMs WRITE setQuietPeriodMs)
public:
    explicit QKShakeDetector(QObject *parent = nullptr);
    ~QKShakeDetector() override;

    /// Feeds the device's accelerometer in. Without one (Qt's dummy backend, which
    /// only repeats a constant reading, does not count) nothing happens and the
    /// answer is false.
    bool start();
    void stop();
    bool isActive() const;

    /// One reading in m/s², at `timestampMs` from any fixed point. A reading older
    /// than the previous one starts over.
    void addSample(qint64 timestampMs, qreal x, qreal y, qreal z);

    /// The least change, in m/s², that a swing must make to be a jolt (12).
    qreal threshold() const { return m_threshold; }
    void setThreshold(qreal threshold) { m_threshold = threshold; }
    /// The time the jolts of one shake fall within (500 ms).
    int windowMs() const { return m_windowMs; }
    void setWindowMs(int windowMs) { m_windowMs = windowMs; }
    int minimumJolts() const { return m_minimumJolts; }
    void setMinimumJolts(int jolts) { m_minimumJolts = jolts; }
    /// How long it stays without a jolt before a new shake can be reported (1000 ms).
    int quietPeriodMs() const { return m_quietPeriodMs; }
    void setQuietPeriodMs(int quietPeriodMs) { m_quietPeriodMs = quietPeriodMs; }

signals:
    void shaken();

private:
    void reset();
    void addJolt(qint64 timestampMs);
    void readingChanged();

    qreal m_threshold = 12.0;
    int m_windowMs = 500;
    int m_minimumJolts = 3;
    int m_quietPeriodMs = 1000;
    QAccelerometer *m_sensor = nullptr;

    std::optional<qint64> m_lastTimestamp;
    QVector3D m_origin;  // where the swing under way started: the last turn
    QVector3D m_extreme; // the reading farthest from m_origin since then
    qint64 m_extremeTimestamp = 0;
    std::optional<qint64> m_lastJolt;
    QList<qint64> m_jolts; // counted towards the next shake
    std::optional<qint64> m_quietUntil;
};
