#ifndef UNWINDER_H
#define UNWINDER_H

#include "symbolizer.h"

class MiniCore;

struct ThreadStack
{
    quint32 tid = 0;
    QString name;
    QVector<StackAddress> stack;  // innermost first; index counts every frame walked
    int leftOut = 0;              // frames walked between the innermost and outermost kept
    int fromProcess = 0;          // the last ones, taken from the handler's return addresses
    QString stop;                 // why the walk ended early, if it did
};

// Walks every thread of a minicore with libdwfl, from the call-frame information of the
// modules' executables and debug files, found by build ID at the bases the note gives. The
// core is libdwfl's only memory: registers and stacks through our own callbacks, so that no
// path named in the core is ever opened.
class Unwinder
{
public:
    static constexpr int InnermostKept = 200;
    static constexpr int OutermostKept = 50;
    static constexpr int MaxWalked = 100000;
    // For all threads together: a core may point a thousand threads at one deep stack.
    static constexpr int MaxWalkedPerCore = 4 * MaxWalked;

    explicit Unwinder(Symbolizer &symbolizer);
    QVector<ThreadStack> unwind(const MiniCore &core);

private:
    Symbolizer &m_symbolizer;
};

#endif
