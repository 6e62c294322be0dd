#include "crypto/aes.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

#include "crypto/aes_tables.hpp"
#include "crypto/block_modes.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

using Block = Aes::Block;
using SignedBlock = int8_t __attribute__((vector_size(Aes::kBlockLen)));
using Columns = uint32_t __attribute__((vector_size(Aes::kBlockLen)));

static_assert(std::endian::native == std::endian::little, "the first byte of a column is its lowest");

constexpr size_t kColumnLen = 4;

Block load_block(const uint8_t* in) {
  Block block;
  std::memcpy(&block, in, sizeof block);
  return block;
}

void store_block(const Block& block, uint8_t* out) {
  std::memcpy(out, &block, sizeof block);
}

// --- the field, byte by byte of a block
// ---------------------------------------------------------------------

// All ones where the highest bit of a byte is set.
[[gnu::always_inline]] inline Block high_bits(Block x) {
  return std::bit_cast<Block>(std::bit_cast<SignedBlock>(x) < 0);
}

[[gnu::always_inline]] inline Block doubled(Block x) {
  constexpr auto reduction = static_cast<uint8_t>(aes::kAes);
  return (x + x) ^ (high_bits(x) & reduction);
}

[[gnu::always_inline]] inline Block multiplied(Block a, Block b) {
  Block product{};
  for (size_t i = 0; i < 8; ++i, b += b) product = doubled(product) ^ (a & high_bits(b));
  return product;
}

// A linear map over the bits of a byte: the images of x^7 down to x^0.
using LinearMap = std::array<uint8_t, 8>;

template <typename Image>
consteval LinearMap linear_map(Image image) {
  LinearMap map{};
  for (size_t i = 0; i < map.size(); ++i) map[i] = image(static_cast<uint8_t>(0x80 >> i));
  return map;
}

template <uint32_t kExponent>  // a power of 2
inline constexpr LinearMap kPower =
    linear_map([](uint8_t x) { return gf256::power<aes::kAes>(x, kExponent); });

// Section 5.1.1, without its constant, and section 5.3.2.
inline constexpr LinearMap kAffine = linear_map([](uint8_t x) {
  return static_cast<uint8_t>(x ^ std::rotl(x, 1) ^ std::rotl(x, 2) ^ std::rotl(x, 3) ^ std::rotl(x, 4));
});
inline constexpr LinearMap kInverseAffine = linear_map(
    [](uint8_t x) { return static_cast<uint8_t>(std::rotl(x, 1) ^ std::rotl(x, 3) ^ std::rotl(x, 6)); });
constexpr uint8_t kAffineConstant = 0x63;

[[gnu::always_inline]] inline Block mapped(Block x, const LinearMap& map) {
  Block image{};
  for (size_t i = 0; i < map.size(); ++i, x += x) image ^= high_bits(x) & map[i];
  return image;
}

// x^254: 254 = 12 + 240 + 2, where 240 = 15 * 16, 15 = 12 + 3, 12 = 3 * 4 and 3 = 2 + 1.
[[gnu::always_inline]] inline Block inverted(Block x) {
  const Block x2 = mapped(x, kPower<2>);
  const Block x3 = multiplied(x2, x);
  const Block x12 = mapped(x3, kPower<4>);
  const Block x240 = mapped(multiplied(x12, x3), kPower<16>);
  return multiplied(multiplied(x240, x12), x2);
}

Block substituted(Block x) {
  return mapped(inverted(x), kAffine) ^ kAffineConstant;
}

Block unsubstituted(Block x) {
  return inverted(mapped(x ^ kAffineConstant, kInverseAffine));
}

// --- rows and columns
// ---------------------------------------------------------------------------------------

// A row of each column, from the column kRow * kStep further.
template <int kRow, int kStep>
[[gnu::always_inline]] inline Columns row_shifted(Columns x) {
  constexpr auto from = [](int column) { return (column + kRow * kStep) % 4; };
  return __builtin_shufflevector(x, x, from(0), from(1), from(2), from(3)) & (0xFFU << (8 * kRow));
}

// ShiftRows; a step of 3 columns is the way back.
template <int kStep>
Block rows_shifted(Block block) {
  const auto x = std::bit_cast<Columns>(block);
  return std::bit_cast<Block>(row_shifted<0, kStep>(x) | row_shifted<1, kStep>(x) | row_shifted<2, kStep>(x) |
                              row_shifted<3, kStep>(x));
}

// Each byte gets the one `kRows` rows below it.
template <int kRows>
Block from_below(Block x) {
  const auto columns = std::bit_cast<Columns>(x);
  return std::bit_cast<Block>(columns >> (8 * kRows) | columns << (32 - 8 * kRows));
}

// Section 5.1.3: 2 of its own, 3 of the next, 1 of the others.
Block columns_mixed(Block x) {
  const Block below = from_below<1>(x);
  const Block sum = x ^ below;
  return doubled(sum) ^ below ^ from_below<2>(sum);
}

// Section 5.3.3: its matrix is that of MixColumns times (5, 0, 4, 0).
Block columns_unmixed(Block x) {
  return columns_mixed(x ^ doubled(doubled(x ^ from_below<2>(x))));
}

uint32_t load_column(const uint8_t* in) {
  uint32_t column = 0;
  std::memcpy(&column, in, sizeof column);
  return column;
}

uint32_t substituted_column(uint32_t column) {
  return std::bit_cast<Columns>(substituted(std::bit_cast<Block>(Columns{column})))[0];
}

struct Encryption {
  static constexpr size_t kBlockLen = Aes::kBlockLen;
  static constexpr size_t kLanes = 1;
  using Block = Aes::Block;
  static Block load(const uint8_t* in) { return load_block(in); }
  static void store(const Block& block, uint8_t* out) { store_block(block, out); }
  Block crypt(const Block& x) const { return key.encrypt(x); }

  const Aes& key;
};

struct Decryption : Encryption {
  Block crypt(const Block& x) const { return key.decrypt(x); }
};

// SP 800-38B section 6.1: twice the number that a block is, in the field of 2^128 elements.
Block subkey(const Block& block) {
  std::array<uint8_t, Aes::kBlockLen> in;
  store_block(block, in.data());
  const WipeOnExit wipe_in(in);
  uint32_t carry = (in[0] >> 7) * 0x87U;
  for (size_t i = in.size(); i-- > 0;) {
    carry ^= uint32_t{in[i]} << 1;
    in[i] = static_cast<uint8_t>(carry);
    carry >>= 8;
  }
  return load_block(in.data());
}

}  // namespace

// Section 5.2.
Aes::Aes(std::span<const uint8_t> key) {
  const size_t key_columns = key.size() == 32 ? 8 : key.size() == 24 ? 6 : 4;
  num_rounds_ = key_columns + 6;
  std::array<uint32_t, 4 * (kMaxNumRounds + 1)> columns{};
  const WipeOnExit wipe_columns(columns);
  for (size_t i = 0; i < 4 * (num_rounds_ + 1); ++i) {
    if (i < key_columns) {
      columns[i] = load_column(&key[kColumnLen * i]);
      continue;
    }
    uint32_t column = columns[i - 1];
    if (i % key_columns == 0) {
      column = substituted_column(std::rotr(column, 8)) ^ aes::kRoundConstants[i / key_columns - 1];
    } else if (key_columns == 8 && i % key_columns == 4) {
      column = substituted_column(column);
    }
    columns[i] = columns[i - key_columns] ^ column;
  }
  std::memcpy(&round_keys_, &columns, sizeof columns);
}

Aes::~Aes() {
  wipe(this, sizeof *this);
}

Block Aes::encrypt(Block block) const {
  block ^= round_keys_[0];
  for (size_t round = 1; round < num_rounds_; ++round) {
    block = columns_mixed(rows_shifted<1>(substituted(block))) ^ round_keys_[round];
  }
  return rows_shifted<1>(substituted(block)) ^ round_keys_[num_rounds_];
}

Block Aes::decrypt(Block block) const {
  block = rows_shifted<3>(unsubstituted(block ^ round_keys_[num_rounds_]));
  for (size_t round = num_rounds_; round-- > 1;) {
    block = rows_shifted<3>(unsubstituted(columns_unmixed(block ^ round_keys_[round])));
  }
  return block ^ round_keys_[0];
}

void aes_cbc_encrypt(const Aes& key, std::span<uint8_t, Aes::kBlockLen> iv, std::span<const uint8_t> in,
                     std::span<uint8_t> out) {
  const size_t count = in.size() / Aes::kBlockLen;
  store_block(cbc_encrypt(Encryption{key}, count, load_block(iv.data()), in.data(), out.data()), iv.data());
}

void aes_cbc_decrypt(const Aes& key, std::span<uint8_t, Aes::kBlockLen> iv, std::span<const uint8_t> in,
                     std::span<uint8_t> out) {
  Block chain = load_block(iv.data());
  crypt_independent(Decryption{key}, in.size() / Aes::kBlockLen, &chain, in.data(), out.data());
  store_block(chain, iv.data());
}

Cmac::~Cmac() {
  wipe(&chain_, sizeof chain_);
  wipe(last_);
}

void Cmac::update(std::span<const uint8_t> data) {
  for (const uint8_t byte : data) {
    if (fill_ == last_.size()) {
      chain_ = key_.encrypt(chain_ ^ load_block(last_.data()));
      fill_ = 0;
    }
    last_[fill_++] = byte;
  }
}

// SP 800-38B section 6.2: a last block that is whole goes in with the first subkey, one that is padded with
// the second.
void Cmac::finish(std::span<uint8_t, kMacLen> mac) {
  Block mask = subkey(key_.encrypt(Block{}));
  if (fill_ < last_.size()) {
    last_[fill_] = 0x80;
    std::fill(last_.begin() + static_cast<ptrdiff_t>(fill_) + 1, last_.end(), uint8_t{0});
    mask = subkey(mask);
  }
  store_block(key_.encrypt(chain_ ^ load_block(last_.data()) ^ mask), mac.data());
  chain_ = Block{};
  fill_ = 0;
}

}  // namespace tq
