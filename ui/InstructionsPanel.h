#pragma once

#include <QDialog>

class QCheckBox;

// The introduction shown at start-up unless "Hide Instructions" is on.
class InstructionsPanel : public QDialog {
    Q_OBJECT
public:
    explicit InstructionsPanel(QWidget* parent = nullptr);
    QCheckBox* hideBox() const { return m_hide; }

private:
    QCheckBox* m_hide;
};
