#pragma once
// product.h: the same messages as a service makes and reads them with kl::message.

#include "bench/message/sources.h"
#include "kl/message_view.h"

namespace bench::product {

void build(kl::message& out, const W1Source& source);
void build(kl::message& out, const W2Source& source);
void build(kl::message& out, const std::vector<W2Source>& source);
void build(kl::message& out, const std::vector<std::string>& source);

// Looks at every value through the getters that return it.  The sum is that of limit::read().
unsigned long long readW1(const kl::message& in);
unsigned long long readW2(const kl::message& in);
unsigned long long readW3(const kl::message& in);
unsigned long long readFlat(const kl::message& in, unsigned int fields);

// The same through the getters that return a reference to texts, bytes and arrays.
unsigned long long readW1ByReference(const kl::message& in);
unsigned long long readW2ByReference(const kl::message& in);
unsigned long long readW3ByReference(const kl::message& in);
unsigned long long readFlatByReference(const kl::message& in, unsigned int fields);

// The same through the getters that leave texts, bytes, arrays and nested messages in place.
unsigned long long readW1ByView(const kl::message& in);
unsigned long long readW2ByView(const kl::message& in);
unsigned long long readW3ByView(const kl::message& in);
unsigned long long readFlatByView(const kl::message& in, unsigned int fields);

// The same from the bytes, in place.
unsigned long long readW1(const kl::message_view& in);
unsigned long long readW2(const kl::message_view& in);
unsigned long long readW3(const kl::message_view& in);
unsigned long long readFlat(const kl::message_view& in, unsigned int fields);

}  // namespace bench::product
