// How deep the elements of an XML text nest, found by scanning it without a parser. libplist frees and
// converts its trees recursively, so an XML property list nested a few hundred thousand levels deep
// ends the process on a full stack inside libplist; such texts are refused before libplist sees them.
#pragma once

#include <cstddef>
#include <string_view>

namespace orvia {

// The deepest nesting taken from an XML property list or keyed archive. Preferences nest a handful of
// levels and keyed archives fewer (their objects lie side by side); this keeps libplist's recursion a
// small part of any thread's stack.
inline constexpr std::size_t kMaxXmlNesting = 10000;

// True when some element of `xml` lies more than `limit` elements deep. A start tag that does not
// close itself opens a level, an end tag closes one; comments, CDATA sections, processing instructions
// and declarations are skipped. Tags are delimited as libplist delimits them, and wherever the scan
// and libplist could part ways, the scan skips no more than libplist does: it may count a level that
// libplist never builds, never the other way round.
inline bool xml_nesting_exceeds(std::string_view xml, std::size_t limit = kMaxXmlNesting) {
  constexpr auto npos = std::string_view::npos;
  std::size_t depth = 0;
  std::size_t i = 0;
  // Moves past the end of a construct; false when the text ends inside it.
  auto skip_past = [&](std::string_view end) {
    const std::size_t at = xml.find(end, i);
    if (at == npos) return false;
    i = at + end.size();
    return true;
  };
  // Where the tag that starts at `i` ends, as libplist reads it: at the first '>' outside double
  // quotes (libplist refuses a tag that meets a '<' first); npos when the text ends inside it.
  auto tag_end = [&]() {
    bool quoted = false;
    for (std::size_t at = i + 1; at < xml.size(); ++at) {
      const char ch = xml[at];
      if (ch == '"') {
        quoted = !quoted;
      } else if (!quoted && (ch == '>' || ch == '<')) {
        return at;
      }
    }
    return npos;
  };
  while ((i = xml.find('<', i)) != npos) {
    const std::string_view rest = xml.substr(i);
    if (rest.starts_with("<!--")) {
      i += 4;
      if (!skip_past("-->")) return false;
    } else if (rest.starts_with("<![CDATA[")) {
      i += 9;
      if (!skip_past("]]>")) return false;
    } else if (rest.starts_with("<?")) {
      i += 2;
      if (!skip_past("?>")) return false;
    } else if (rest.starts_with("<!")) {
      i += 2;
      if (!skip_past(">")) return false;
    } else {
      const std::size_t end = tag_end();
      if (end == npos) return false;
      const bool closes_itself = xml[end] == '>' && xml[end - 1] == '/';
      if (rest.starts_with("</")) {
        if (depth > 0) --depth;
      } else if (!closes_itself && ++depth > limit) {
        return true;
      }
      i = xml[end] == '>' ? end + 1 : end;
    }
  }
  return false;
}

}  // namespace orvia
