#ifndef QUARVEL_TESTS_CLI_DRAIN_H
#define QUARVEL_TESTS_CLI_DRAIN_H

// Everything a one-at-a-time reader of the tool gives (SampleReader, StackReader).

#include <vector>

template <class Item, class Reader>
std::vector<Item> drain(Reader& reader) {
    std::vector<Item> items;
    Item item;
    while (reader.next(item))
        items.push_back(item);
    return items;
}

#endif
