#pragma once

#include <QDialog>

class QLineEdit;

// A source added by hand: a path and a title number ("0" = every title).
class LoadPanel : public QDialog {
    Q_OBJECT
public:
    explicit LoadPanel(QWidget* parent = nullptr);
    QString path() const;
    qint64 title() const;
    QLineEdit* pathField() const { return m_path; }
    QLineEdit* titleField() const { return m_title; }

private:
    QLineEdit* m_path;
    QLineEdit* m_title;
};
