#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QList>
#include <QString>

// A folder on this machine registered on the relay, to which context and usage attach.
struct MereProject {
    QString id;
    QString name;
    QString root_path; // may be empty for a project without a local folder
    QString created_at;
    QString updated_at;

    bool operator==(const MereProject&) const = default;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &MereProject::id), wire::field("name", &MereProject::name),
                          wire::field("root_path", &MereProject::root_path),
                          wire::field("created_at", &MereProject::created_at),
                          wire::field("updated_at", &MereProject::updated_at)};
    }
};

// The body that registers a folder, or finds the project the relay already has for it.
struct ProjectUpsertInput {
    QString name;
    QString root_path;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("name", &ProjectUpsertInput::name),
                          wire::field("root_path", &ProjectUpsertInput::root_path)};
    }
};

// One saved piece of a project's context: a note, or a copy of a guide file ("file:<path>").
struct ProjectContextItem {
    QString id;
    QString title;
    QString content;
    QString source;
    QString updated_at;

    bool operator==(const ProjectContextItem&) const = default;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &ProjectContextItem::id),
                          wire::field("title", &ProjectContextItem::title),
                          wire::field("content", &ProjectContextItem::content),
                          wire::field("source", &ProjectContextItem::source),
                          wire::field("updated_at", &ProjectContextItem::updated_at)};
    }
};

struct ContextItemInput {
    QString title;
    QString content;
    QString source;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("title", &ContextItemInput::title),
                          wire::field("content", &ContextItemInput::content),
                          wire::field("source", &ContextItemInput::source)};
    }
};

// What an agent gets: the items the relay chose for a query, as one text within a budget.
struct ContextPack {
    QList<ProjectContextItem> items;
    QString content; // empty when nothing matched
    qint64 character_count = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("items", &ContextPack::items),
                          wire::field("content", &ContextPack::content),
                          wire::field("character_count", &ContextPack::character_count)};
    }
};

// A guide file found at the project root; local only, never sent until the person syncs it.
struct LocalGuide {
    QString relativePath;
    QString content;

    bool operator==(const LocalGuide&) const = default;
};
