#ifndef UNIXSIGNALWATCHER_H
#define UNIXSIGNALWATCHER_H

#include <QObject>

#include <initializer_list>

QT_BEGIN_NAMESPACE
class QSocketNotifier;
QT_END_NAMESPACE

// Delivers Unix signals as a Qt signal on the GUI thread. The handler itself only
// writes the signal number to a socket pair, as Qt advises for Unix signals; there
// can be one watcher per process.
class UnixSignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit UnixSignalWatcher(std::initializer_list<int> signalNumbers);
    ~UnixSignalWatcher() override;

signals:
    void received(int signal);

private slots:
    void onNotifierActivated();

private:
    QList<int> watched;
    QSocketNotifier *notifier = nullptr;
};

#endif
