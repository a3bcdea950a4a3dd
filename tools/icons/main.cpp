// Draws the two images compiled into error_report:
//   icon/application.png   1024 x 1024 RGBA, the window icon
//   icon/crash_report.png   128 x 128 RGBA, the crash picture
// Usage: makeicons <output folder>   (normally gfx/icon of the source tree)

#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

static QImage canvas(int side)
{
    QImage image(side, side, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    return image;
}

// A rounded blue tile with a stylised "V3" mark, drawn on a 1024 grid.
static QImage applicationIcon()
{
    QImage image = canvas(1024);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);

    QLinearGradient tile(0, 64, 0, 960);
    tile.setColorAt(0, QColor(0x3a, 0x7b, 0xd5));
    tile.setColorAt(1, QColor(0x1b, 0x3a, 0x7a));
    p.setPen(QPen(QColor(0x10, 0x24, 0x4d), 12));
    p.setBrush(tile);
    p.drawRoundedRect(QRectF(64, 64, 896, 896), 180, 180);

    QRadialGradient glow(512, 300, 520);
    glow.setColorAt(0, QColor(255, 255, 255, 70));
    glow.setColorAt(1, QColor(255, 255, 255, 0));
    p.setPen(Qt::NoPen);
    p.setBrush(glow);
    p.drawRoundedRect(QRectF(70, 70, 884, 884), 176, 176);

    QPainterPath v;
    v.moveTo(230, 260);
    v.lineTo(350, 260);
    v.lineTo(470, 640);
    v.lineTo(590, 260);
    v.lineTo(710, 260);
    v.lineTo(530, 780);
    v.lineTo(410, 780);
    v.closeSubpath();
    p.setBrush(QColor(0xf4, 0xf7, 0xfc));
    p.drawPath(v);

    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(260);
    font.setBold(true);
    p.setFont(font);
    p.setPen(QColor(0xff, 0xc8, 0x3d));
    p.drawText(QRectF(600, 520, 320, 320), Qt::AlignCenter, QStringLiteral("3"));
    return image;
}

// A warning triangle with a jagged crack: the program went down.
static QImage crashIcon()
{
    QImage image = canvas(128);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);

    QPainterPath triangle;
    triangle.moveTo(64, 8);
    triangle.lineTo(122, 116);
    triangle.lineTo(6, 116);
    triangle.closeSubpath();
    QLinearGradient fill(0, 8, 0, 116);
    fill.setColorAt(0, QColor(0xff, 0x6b, 0x5a));
    fill.setColorAt(1, QColor(0xc4, 0x1e, 0x1e));
    p.setPen(QPen(QColor(0x7a, 0x0e, 0x0e), 4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(fill);
    p.drawPath(triangle);

    QPainterPath crack;
    crack.moveTo(66, 36);
    crack.lineTo(56, 58);
    crack.lineTo(70, 66);
    crack.lineTo(58, 90);
    p.setPen(QPen(Qt::white, 7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::NoBrush);
    p.drawPath(crack);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    p.drawEllipse(QPointF(58, 104), 6, 6);
    return image;
}

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.size() != 2) {
        qWarning("usage: makeicons <output folder>");
        return 2;
    }
    const QDir out(args.at(1));
    const bool ok = applicationIcon().save(out.filePath(QStringLiteral("application.png")))
            && crashIcon().save(out.filePath(QStringLiteral("crash_report.png")));
    return ok ? 0 : 1;
}
