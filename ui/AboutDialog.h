#pragma once

#include <QDialog>

// The about box with the credits ("Credits Pro").
class AboutDialog : public QDialog {
    Q_OBJECT
public:
    explicit AboutDialog(QWidget* parent = nullptr);
    static QString creditsText();
};
