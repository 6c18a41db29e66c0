#ifndef OSTREL_VIEWER_VIEW_ASSETS_H
#define OSTREL_VIEWER_VIEW_ASSETS_H

// The browser view's page, embedded at build time from viewer/view.html and
// viewer/view.js (embed.cmake), each with a terminating NUL.
//
// kViewHtml is a template: "{{name}}" marks where the page's figures go
// (view_page.cpp fills them in); "{{script}}" is where kViewJs goes.

namespace otools {

extern const char kViewHtml[];
extern const char kViewJs[];

}  // namespace otools

#endif  // OSTREL_VIEWER_VIEW_ASSETS_H
