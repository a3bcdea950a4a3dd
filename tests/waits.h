#ifndef WAITS_H
#define WAITS_H

#include <QtGlobal>

// Every wait inside a test stretches by the factor that stretches the test's own CTest limit
// (the sanitizer build runs several times slower). Qt's own waits default to 5 and 30 seconds.
inline int scaled(int milliseconds)
{
    return milliseconds * qMax(1, qEnvironmentVariableIntValue("TEST_TIMEOUT_FACTOR"));
}

#define TRY_COMPARE(actual, expected) QTRY_COMPARE_WITH_TIMEOUT(actual, expected, scaled(5000))
#define TRY_VERIFY(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, scaled(5000))

#endif
