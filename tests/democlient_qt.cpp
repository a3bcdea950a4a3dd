// A Qt client's crashes, which the plain C demo client cannot make: C++ exceptions, qFatal
// handed to the crash handler from a message handler, a QThread that overflows its stack.
#include "crashhandler.h"

#include <QCoreApplication>
#include <QThread>

#include <cassert>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <sys/resource.h>

namespace velmora {
struct DeviceLost : std::runtime_error
{
    using std::runtime_error::runtime_error;
};
}

static volatile unsigned long recursionLimit = ~0UL;

static unsigned long recurse(unsigned long depth)
{
    volatile char frame[512];
    frame[0] = char(depth);
    if (depth == recursionLimit)
        return depth;
    return recurse(depth + 1) + (unsigned long)frame[0];
}

class RenderThread : public QThread
{
protected:
    void run() override { recurse(0); }
};

// In the anonymous namespace, which clang names in the frames and gcc leaves out.
namespace {

__attribute__((noinline)) void fail() { throw std::logic_error("the frame is gone"); }

// A throw that reaches a noexcept function ends in std::terminate there.
__attribute__((noinline)) void present() noexcept { fail(); }

}

// A terminate handler that expects the exception it was called for: a rethrow outside any
// catch calls std::terminate without one, and its assertion fails on the way to abort().
static void sayUncaught()
{
    assert(std::current_exception());
    fprintf(stderr, "velmora-democlient-qt: an exception nobody caught\n");
    abort();
}

__attribute__((noinline)) static void rethrowOutside() { throw; }

static void handOver(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    const QByteArray line = text.toLocal8Bit();
    if (type == QtFatalMsg)
        crashhandler_set_message(line.constData());
    fprintf(stderr, "%s\n", line.constData());
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QString kind, folder, log, sender;
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        const QString value = args.value(i + 1);
        if (args[i].startsWith("--crash="))
            kind = args[i].mid(8);
        else if (args[i] == "--dump-folder")
            folder = args.value(++i);
        else if (args[i] == "--log")
            log = args.value(++i);
        else if (args[i] == "--sender")
            sender = args.value(++i);
    }
    if (sender.isEmpty())
        sender = app.applicationDirPath() + "/error_report";
    if (!QStringList{"exception", "noexcept", "qfatal", "qthread-stack", "terminate-assert"}.contains(kind) || folder.isEmpty() || log.isEmpty()) {
        fprintf(stderr, "Usage: velmora-democlient-qt --crash=exception|noexcept|qfatal|qthread-stack|terminate-assert"
                        " --dump-folder DIR --log FILE [--sender PATH]\n");
        return 2;
    }
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    const int error = crashhandler_install(sender.toLocal8Bit().constData(), "3.0.0",
                                           folder.toLocal8Bit().constData(), log.toLocal8Bit().constData());
    if (error != 0)
        fprintf(stderr, "velmora-democlient-qt: crash handler not installed: %s\n", strerror(error));
    qInstallMessageHandler(handOver);

    if (kind == "exception") {
        throw velmora::DeviceLost("the renderer's device is lost");
    } else if (kind == "noexcept") {
        present();
    } else if (kind == "qfatal") {
        qFatal("renderer: device lost after %d frames", 7);
    } else if (kind == "terminate-assert") {
        std::set_terminate(sayUncaught);
        rethrowOutside();
    } else {
        RenderThread thread;
        thread.start();
        thread.wait();
    }
    return 4;
}
