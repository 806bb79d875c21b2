#pragma once

#include <QDialog>

class QCheckBox;
class QLineEdit;
class SearchPanelController;

// The window-modal panels the controllers ask for. Each runs with
// runSheet(): window-modal on its parent, returning when it closes.
int runSheet(QDialog& dialog);

// No hits for a name: rename and search again, or skip.
class SearchPanel : public QDialog {
    Q_OBJECT
public:
    SearchPanel(SearchPanelController& panel, QWidget* parent = nullptr);
    QLineEdit* newNameField() const { return m_newName; }

private:
    SearchPanelController& m_panel;
    QLineEdit* m_newName;
};

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

// What a DVD or Blu-ray source needs on this system, with the "hide" check
// box that keeps it from showing again.
class DiscInstructionsPanel : public QDialog {
    Q_OBJECT
public:
    enum Disc { Dvd, Bluray };
    DiscInstructionsPanel(Disc disc, QWidget* parent = nullptr);
    QCheckBox* hideBox() const { return m_hide; }

private:
    Disc m_disc;
    QCheckBox* m_hide;
};

// The introduction shown at start-up unless "Hide Instructions" is on.
class InstructionsPanel : public QDialog {
    Q_OBJECT
public:
    explicit InstructionsPanel(QWidget* parent = nullptr);
    QCheckBox* hideBox() const { return m_hide; }

private:
    QCheckBox* m_hide;
};

// The about box with the credits ("Credits Pro").
class AboutDialog : public QDialog {
    Q_OBJECT
public:
    explicit AboutDialog(QWidget* parent = nullptr);
    static QString creditsText();
};
