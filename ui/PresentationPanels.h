#pragma once

#include <QDialog>
#include <QPixmap>

#include <memory>

class EncodeBrowserController;
class MDI_Media;
class QLabel;
class QTreeWidget;

// The presentation of one movie: its backdrop filling the panel with the
// poster, name, year and tag line in front.
class PresentationPanel : public QDialog {
    Q_OBJECT
public:
    PresentationPanel(const std::shared_ptr<MDI_Media>& movie, QWidget* parent = nullptr);
    bool hasBackdrop() const { return !m_backdrop.isNull(); }
    bool hasPoster() const { return !m_poster.isNull(); }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QPixmap m_backdrop;
    QPixmap m_poster;
    QString m_name;
    QString m_facts;
};

// The poster of one movie as large as the screen allows.
class PosterPanel : public QDialog {
    Q_OBJECT
public:
    PosterPanel(const std::shared_ptr<MDI_Media>& movie, QWidget* parent = nullptr);
    bool hasPoster() const { return m_hasPoster; }

private:
    bool m_hasPoster = false;
};

// The warnings of the failed and partly done items of the encode and retag
// browsers, with their texts.
class WarningsPanel : public QDialog {
    Q_OBJECT
public:
    WarningsPanel(const QList<EncodeBrowserController*>& browsers, QWidget* parent = nullptr);
    QTreeWidget* list() const { return m_list; }
    // Fills the list again from the browsers' items.
    void reload();

private:
    QList<EncodeBrowserController*> m_browsers;
    QTreeWidget* m_list;
    QLabel* m_empty;
};

// The pixmaps of a movie's cover art and backdrop; null when it has none.
QPixmap moviePoster(const MDI_Media& movie);
QPixmap movieBackdrop(const MDI_Media& movie);
