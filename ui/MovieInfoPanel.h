#pragma once

#include "processing/JobDelegates.h"

#include <QPointer>

#include "library/MoviesBrowserController.h"
#include <QVariantMap>
#include <QWidget>

#include <memory>

class MDI_Media;
class MoviesBrowserController;
class PosterCache;

namespace Ui {
class MovieInfoPanel;
}

// The information beside the grid: poster, name, year, genre, rating,
// description, cast and crew, the chosen title with its audio and subtitle
// tracks, the output path and the warnings of the selected movie; the count
// when several are selected. Follows the browsers' selection notification
// and the library's selected movie, and is redrawn by the encoder while it
// works on the movie shown.
class MovieInfoPanel : public QWidget, public InformationPanel {
    Q_OBJECT
public:
    explicit MovieInfoPanel(QWidget* parent = nullptr);
    ~MovieInfoPanel() override;

    void followLibrary(MoviesBrowserController* library);
    // Shows `movie` (null: nothing selected) with `count` selected in all.
    void showMovie(const std::shared_ptr<MDI_Media>& movie, int count = 1);

    // InformationPanel
    const MDI_Media* shownMovie() const override { return m_movie.get(); }
    void refreshView(MDI_Media* movie) override;

    // For tests and screenshots.
    QString nameText() const;
    QString summaryText() const;

private:
    void selectionChanged(const QVariantMap& userInfo);
    void fill();

    std::unique_ptr<Ui::MovieInfoPanel> m_ui;
    std::shared_ptr<MDI_Media> m_movie;
    int m_count = 0;
    PosterCache* m_posters;
    QString m_posterSource;
    QPointer<MoviesBrowserController> m_library;
};
