#include "tools/keldwick-server/views.h"

#include <algorithm>
#include <cstring>

namespace tools {
namespace {

constexpr size_t MostViews = 8;
constexpr auto Fresh = std::chrono::milliseconds(500);  // a list is as good as new
constexpr int CostShare = 5;                            // a list is made again after that many times what it took

bool Matches(const IDENTITY& identity, const std::vector<std::string>& words) {
    return std::all_of(words.begin(), words.end(), [&](const std::string& word) {
        return memmem(identity.folded.data(), identity.folded.size(), word.data(), word.size()) != nullptr;
    });
}

template <typename KEY>
void SortBy(std::vector<const IDENTITY*>& found, bool descending, KEY key) {
    std::sort(found.begin(), found.end(), [&](const IDENTITY* a, const IDENTITY* b) {
        if (descending) std::swap(a, b);
        const auto& left = key(*a);
        const auto& right = key(*b);
        return left == right ? a->number < b->number : left < right;
    });
}

void Sort(std::vector<const IDENTITY*>& found, const QUERY& query) {
    using BY = QUERY::BY;
    const bool down = query.descending;
    switch (query.by) {
        case BY::Since:
            return SortBy(found, down, [](const IDENTITY& one) -> const TIME& { return one.since; });
        case BY::Heard:
            return SortBy(found, down, [](const IDENTITY& one) -> const TIME& { return one.heard; });
        case BY::User:
            return SortBy(found, down, [](const IDENTITY& one) -> const std::string& { return one.userKey; });
        case BY::Computer:
            return SortBy(found, down, [](const IDENTITY& one) -> const std::string& { return one.computerKey; });
        case BY::Address:
            return SortBy(found, down, [](const IDENTITY& one) -> const std::string& { return one.addressKey; });
    }
}

}  // namespace

std::vector<std::string> WordsOf(const std::string& search) {
    const std::string folded = Folded(search);
    std::vector<std::string> words;
    for (size_t at = 0; at < folded.size();) {
        const size_t end = std::min(folded.find(' ', at), folded.size());
        if (end > at) words.push_back(folded.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

void VIEWS::Make(const PICTURE& picture, VIEW& view, CLOCK::time_point now) {
    const auto start = ProcessorTime();
    std::vector<const IDENTITY*> found;
    for (const IDENTITY& identity : picture.Identities())
        if (Matches(identity, view.query.words)) found.push_back(&identity);
    Sort(found, view.query);
    view.list.numbers.clear();
    view.list.numbers.reserve(found.size());
    for (const IDENTITY* identity : found) view.list.numbers.push_back(identity->number);
    view.list.version = picture.Version();
    view.made = now;
    view.cost = ProcessorTime() - start;
    share.Take(view.cost);
}

const VIEWS::LIST* VIEWS::Find(const PICTURE& picture, const QUERY& query, CLOCK::time_point now) {
    const auto known = std::find_if(views.begin(), views.end(), [&](const VIEW& view) { return view.query == query; });
    if (known != views.end()) {
        views.splice(views.begin(), views, known);
        VIEW& view = views.front();
        const bool good = view.list.version == picture.Version() ||
                          now - view.made < std::max<CLOCK::duration>(Fresh, CostShare * view.cost);
        if (!good && share.Left(now)) Make(picture, view, now);
        return &view.list;
    }
    if (!share.Left(now)) return nullptr;
    if (views.size() >= MostViews) views.pop_back();
    VIEW& view = views.emplace_front();
    view.query = query;
    Make(picture, view, now);
    return &view.list;
}

}  // namespace tools
