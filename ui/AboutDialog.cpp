#include "ui/AboutDialog.h"

#include "ui/Artwork.h"
#include "ui/Sheets.h"

#include <QDialogButtonBox>
#include <QFile>
#include <QLabel>
#include <QTextBrowser>
#include <QVBoxLayout>

QString AboutDialog::creditsText() {
    // The credits are compiled into the widget library, which the linker
    // would otherwise leave out of the program.
    Q_INIT_RESOURCE(tarnwick);
    QFile file(QStringLiteral(":/tarnwick/Credits Pro.html"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

AboutDialog::AboutDialog(QWidget* parent) : QDialog(parent) {
    setObjectName(QStringLiteral("AboutDialog"));
    setWindowTitle(tr("About Tarnwick"));
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(24, 20, 24, 16);
    column->setSpacing(8);
    auto* icon = new QLabel(this);
    const QPixmap pixmap = Artwork::pixmap(QStringLiteral("Tarnwick"));
    if (!pixmap.isNull())
        icon->setPixmap(pixmap.scaled(96, 96, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    icon->setAlignment(Qt::AlignCenter);
    column->addWidget(icon);
    QLabel* name = sheetHeading(QStringLiteral("Tarnwick"), this);
    name->setAlignment(Qt::AlignCenter);
    column->addWidget(name);
    auto* version = new QLabel(tr("Version %1").arg(QStringLiteral(TARNWICK_VERSION)), this);
    version->setAlignment(Qt::AlignCenter);
    version->setForegroundRole(QPalette::PlaceholderText);
    column->addWidget(version);
    auto* credits = new QTextBrowser(this);
    credits->setObjectName(QStringLiteral("credits"));
    credits->setOpenExternalLinks(true);
    credits->setHtml(creditsText());
    credits->setMinimumSize(420, 220);
    column->addWidget(credits, 1);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    column->addWidget(buttons);
}
