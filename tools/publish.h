// Publishing a page from its text.
#ifndef ORV_TOOLS_PUBLISH_H
#define ORV_TOOLS_PUBLISH_H

#include "commands.h"

#include <cstddef>
#include <string>

// The text of a page. It stays open, so the text that is looked at is the one that is published.
class PageText {
public:
    // Opens the table, or copies standard input to a private file. Throws Failure, unless an empty page is allowed.
    explicit PageText(const PageOptions& options);

    // False: it is a copy of standard input, or empty because the table cannot be read.
    bool IsTable() const
    {
        return isTable_;
    }
    int File() const
    {
        return file_;
    }

    // Each line that is not empty is a table.
    std::size_t Tables() const;

private:
    int Open(const PageOptions& options);

    bool isTable_ = false;
    const Descriptor file_;
};

// Throws Failure if the page would replace its table.
void RequireTwoFiles(const PageOptions& options);

// Throws Failure if the page is as it was.
void Publish(const PageText& text, const PageOptions& options);

// Prints the result, unless quiet. Throws Failure if that fails.
void Announce(std::size_t tables, const PageOptions& options);

// Publishes the page whenever its table changes, until SIGINT or SIGTERM.
void FollowTable(const PageOptions& options);

#endif  // ORV_TOOLS_PUBLISH_H
