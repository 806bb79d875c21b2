#pragma once

#include <QDialog>

class QCheckBox;

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
