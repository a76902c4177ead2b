// A generated store shaped like a large administration, for the benchmark
// and for the tests that need thousands of objects.
#pragma once

#include <string>

// The SQL that fills a store (made from the schema) with about n rows: per
// 900 thousand rows, 100 thousand projects with two data domains and two
// vault and two data servers each, 10 thousand domains with 100 thousand
// business domains, 20 thousand servers, 10 thousand hosts, 10 thousand
// targets and subscriptions with two statuses each, package definitions and
// sites. Rows are inserted in their owners' order, or, with random, every
// table in a random order.
std::string ShapedStoreSql(long n, bool random);
