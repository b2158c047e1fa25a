#include "QKShakeDetector.h"

#include <QAccelerometer>

// A swing turns once the reading came back this share of the threshold from its
// extreme; smaller wobbles are sensor noise or a hand's tremor.
static constexpr qreal TurnShare = 0.25;
// A knock rings with several strong swings within a few hundredths of a second; a
// hand cannot shake that fast.
static constexpr qint64 KnockRingMs = 40;

QKShakeDetector::QKShakeDetector(QObject *parent) : QObject(parent)
{}

QKShakeDetector::~QKShakeDetector() = default;

bool QKShakeDetector::start()
{
    if (isActive())
        return true;
    if (!m_sensor) {
        QByteArray identifier;
        for (const QByteArray &candidate : QSensor::sensorsForType(QAccelerometer::sensorType))
            if (!candidate.startsWith("dummy.")) {
                identifier = candidate;
                break;
            }
        if (identifier.isEmpty())
            return false;
        auto *sensor = new QAccelerometer(this);
        sensor->setIdentifier(identifier);
        if (!sensor->connectToBackend()) {
            delete sensor;
            return false;
        }
        connect(sensor, &QSensor::readingChanged, this, &QKShakeDetector::readingChanged);
        m_sensor = sensor;
    }
    reset();
    return m_sensor->start();
}

void QKShakeDetector::stop()
{
    if (m_sensor)
        m_sensor->stop();
}

bool QKShakeDetector::isActive() const
{
    return m_sensor && m_sensor->isActive();
}

void QKShakeDetector::readingChanged()
{
    const QAccelerometerReading *reading = m_sensor->reading();
    if (reading)
        addSample(qint64(reading->timestamp() / 1000), reading->x(), reading->y(), reading->z());
}

void QKShakeDetector::reset()
{
    m_lastTimestamp.reset();
    m_lastJolt.reset();
    m_jolts.clear();
    m_quietUntil.reset();
}

void QKShakeDetector::addSample(qint64 timestampMs, qreal x, qreal y, qreal z)
{
    const QVector3D reading{float(x), float(y), float(z)};
    if (m_lastTimestamp && timestampMs < *m_lastTimestamp)
        reset();
    if (!m_lastTimestamp) {
        m_origin = m_extreme = reading;
        m_extremeTimestamp = timestampMs;
    }
    m_lastTimestamp = timestampMs;

    const qreal reach = (m_extreme - m_origin).length();
    if ((reading - m_origin).length() >= reach) {
        m_extreme = reading;
        m_extremeTimestamp = timestampMs;
        return;
    }
    if ((reading - m_extreme).length() < m_threshold * TurnShare)
        return;
    const qint64 extremeTimestamp = m_extremeTimestamp;
    m_origin = m_extreme;
    m_extreme = reading;
    m_extremeTimestamp = timestampMs;
    if (reach >= m_threshold)
        addJolt(extremeTimestamp);
}

void QKShakeDetector::addJolt(qint64 timestampMs)
{
    const bool ringing = m_lastJolt && timestampMs - *m_lastJolt < KnockRingMs;
    m_lastJolt = timestampMs;
    if (ringing)
        return;
    if (m_quietUntil && timestampMs < *m_quietUntil) {
        m_quietUntil = timestampMs + m_quietPeriodMs;
        return;
    }
    m_quietUntil.reset();
    m_jolts.append(timestampMs);
    while (timestampMs - m_jolts.first() > m_windowMs)
        m_jolts.removeFirst();
    if (m_jolts.size() < m_minimumJolts)
        return;
    m_jolts.clear();
    m_quietUntil = timestampMs + m_quietPeriodMs;
    emit shaken();
}
