#include "app/RunLoop.h"

#include <QEventLoop>
#include <QTimer>

void runRunLoop(double seconds)
{
    QEventLoop loop;
    QTimer::singleShot(int(seconds * 1000), &loop, &QEventLoop::quit);
    loop.exec(QEventLoop::AllEvents);
}
