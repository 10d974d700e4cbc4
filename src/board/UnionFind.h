#pragma once

#include <utility>
#include <vector>

namespace vexo {

/// Disjoint sets of the numbers 0 to n - 1, united by size. Source: Tarjan, J. ACM 22 (1975) 215.
class UnionFind {
public:
    explicit UnionFind(size_t n)
        : _parent(n, -1)
    {
    }

    /// Representative of the set that holds i; shortens the path that led to it.
    int root(int i)
    {
        int top = i;
        while (_at(top) >= 0)
            top = _at(top);
        while (i != top)
            i = std::exchange(_at(i), top);
        return top;
    }

    /// Unites the sets of i and j under the root of the larger one; of i's when they are equally large.
    void unite(int i, int j)
    {
        int larger = root(i);
        int smaller = root(j);
        if (larger == smaller) return;
        if (size(larger) < size(smaller)) std::swap(larger, smaller);
        _at(larger) += _at(smaller);
        _at(smaller) = larger;
    }

    /// Size of the set of which i is the root; not positive when i is no root.
    int size(int i) const { return -_parent[static_cast<size_t>(i)]; }

private:
    int& _at(int i) { return _parent[static_cast<size_t>(i)]; }

    std::vector<int> _parent; // parent, or minus the size of the set at its root
};

} // namespace vexo
