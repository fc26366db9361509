#include "archive/ArchiveReader.h"

#include "archive/ZipRecords.h"

#define ZLIB_CONST
#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cassert>

namespace appsync {

namespace {

/// Of content that is read, inflated or handed out piece by piece.
constexpr std::size_t maxPiece = std::size_t{1} << 20;

constexpr std::string_view brokenData = "its compressed data is broken or ends too early";
constexpr std::string_view moreData = "something follows its compressed data";

std::size_t pieceOf(std::uint64_t bytes) {
    return static_cast<std::size_t>(std::min<std::uint64_t>(bytes, maxPiece));
}

bool isInflatedAtOnce(const ZipDirectory::Entry& entry) {
    return entry.unpackedBytes <= maxInflatedAtOnce && entry.packedBytes <= maxInflatedAtOnce - entry.unpackedBytes;
}

/// What is not known before the content has been written stands behind it, and there are zeros here.
bool agrees(std::uint64_t figure, std::uint64_t stated) {
    return figure == stated || figure == 0;
}

} // namespace

void ArchiveReader::EndStream::operator()(z_stream_s* stream) const noexcept {
    inflateEnd(stream);
    delete stream;
}

ArchiveReader::ArchiveReader(ArchiveFile& file, const Refusal& refuse) noexcept
    : _file(file), _refuse(refuse), _memory(file.memory()) {}

ArchiveReader::~ArchiveReader() = default;

ErrorPtr ArchiveReader::_contradiction() const {
    return _refuse(InstallerError::archiveDamaged, _entry->path, "is not what the archive's directory says");
}

ErrorPtr ArchiveReader::_damaged(std::string_view reason) const {
    return _refuse(InstallerError::archiveDamaged, _entry->path, "is damaged (" + std::string(reason) + ")");
}

ErrorPtr ArchiveReader::_anotherSize() const {
    return _refuse(InstallerError::archiveDamaged, _entry->path, "has another size than the archive's directory says");
}

ErrorPtr ArchiveReader::_noMemory() const {
    return _refuse(InstallerError::failed, "there is no memory for reading it");
}

Result<void> ArchiveReader::open(const ZipDirectory::Entry& entry) {
    _entry = &entry;
    _taken = _handedOut = 0;
    _checksum = 0;
    _stream.reset();
    // The directory has room for this much of each entry.
    const auto fixed = _file.read(entry.start, zip::localHeaderSize);
    if (!fixed) {
        return fixed.error();
    }
    auto header = zip::readLocalHeader(*fixed);
    if (!header || header->nameSize != entry.name.size() ||
        header->method != (entry.isDeflated ? zip::methodDeflated : zip::methodStored) ||
        (header->flags & (zip::encryptedFlags | zip::patchFlag)) != 0) {
        return _contradiction();
    }
    const std::size_t textSize = header->nameSize + header->extraSize;
    _contentStart = entry.start + zip::localHeaderSize + textSize;
    if (_contentStart + entry.packedBytes > entry.end) {
        return _contradiction();
    }
    const auto texts = _file.read(entry.start + zip::localHeaderSize, textSize);
    if (!texts) {
        return texts.error();
    }
    if (!texts->starts_with(entry.name) || !zip::readSizes64(texts->substr(entry.name.size()), header->sizes) ||
        !agrees(header->checksum, entry.checksum) || !agrees(header->sizes.packed, entry.packedBytes) ||
        !agrees(header->sizes.unpacked, entry.unpackedBytes)) {
        return _contradiction();
    }
    _hasDescriptor = (header->flags & zip::descriptorFlag) != 0;
    return {};
}

Result<std::string_view> ArchiveReader::nextPiece() {
    assert(_entry);
    const auto piece = !_entry->isDeflated         ? _readPiece()
                       : isInflatedAtOnce(*_entry) ? _pieceOfWhole()
                                                   : _inflatePiece();
    if (!piece) {
        return piece;
    }
    if (piece->size() > _entry->unpackedBytes - _handedOut) {
        return _anotherSize();
    }
    _handedOut += piece->size();
    _checksum = libdeflate_crc32(_checksum, piece->data(), piece->size());
    if (piece->empty()) {
        if (const auto checked = _checkEnd(); !checked) {
            return checked.error();
        }
    }
    return piece;
}

Result<std::string> ArchiveReader::content() {
    std::string all;
    for (;;) {
        const auto piece = nextPiece();
        if (!piece) {
            return piece.error();
        }
        if (piece->empty()) {
            return all;
        }
        all.append(*piece);
    }
}

Result<std::string_view> ArchiveReader::_readPiece() {
    const auto piece = _file.read(_contentStart + _taken, pieceOf(_entry->packedBytes - _taken));
    if (piece) {
        _taken += piece->size();
    }
    return piece;
}

Result<std::string_view> ArchiveReader::_pieceOfWhole() {
    if (_taken == 0) {
        if (const auto inflated = _inflateWhole(); !inflated) {
            return inflated.error();
        }
    }
    return std::string_view(_memory.content.data() + _handedOut, pieceOf(_entry->unpackedBytes - _handedOut));
}

Result<void> ArchiveReader::_inflateWhole() {
    libdeflate_decompressor* const inflater = _memory.inflater();
    if (!inflater) {
        return _noMemory();
    }
    const auto packed = _file.read(_contentStart, static_cast<std::size_t>(_entry->packedBytes));
    if (!packed) {
        return packed.error();
    }
    const auto size = static_cast<std::size_t>(_entry->unpackedBytes);
    char* const content = _memory.content.grow(std::max<std::size_t>(size, 1));
    std::size_t used = 0;
    switch (libdeflate_deflate_decompress_ex(inflater, packed->data(), packed->size(), content, size, &used, nullptr)) {
    case LIBDEFLATE_SUCCESS: break;
    case LIBDEFLATE_SHORT_OUTPUT:
    case LIBDEFLATE_INSUFFICIENT_SPACE: return _anotherSize();
    default: return _damaged(brokenData);
    }
    if (used < packed->size()) {
        return _damaged(moreData);
    }
    _taken = used;
    return {};
}

Result<void> ArchiveReader::_openStream() {
    _stream.reset(new z_stream_s{});
    return inflateInit2(_stream.get(), -MAX_WBITS) == Z_OK ? Result<void>() : _noMemory();
}

Result<std::string_view> ArchiveReader::_inflatePiece() {
    if (!_stream) {
        if (const auto opened = _openStream(); !opened) {
            return opened.error();
        }
    }
    char* const piece = _memory.content.grow(maxPiece);
    _stream->next_out = reinterpret_cast<Bytef*>(piece);
    _stream->avail_out = maxPiece;
    int outcome = Z_OK;
    while (outcome == Z_OK && _stream->avail_out > 0) {
        if (_stream->avail_in == 0) {
            const auto packed = _readPiece();
            if (!packed) {
                return packed.error();
            }
            _stream->next_in = reinterpret_cast<const Bytef*>(packed->data());
            _stream->avail_in = static_cast<uInt>(packed->size());
        }
        outcome = inflate(_stream.get(), Z_NO_FLUSH);
    }
    if (outcome != Z_OK && outcome != Z_STREAM_END) {
        return _damaged(brokenData);
    }
    if (outcome == Z_STREAM_END && (_stream->avail_in > 0 || _taken < _entry->packedBytes)) {
        return _damaged(moreData);
    }
    return std::string_view(piece, maxPiece - _stream->avail_out);
}

Result<void> ArchiveReader::_checkEnd() {
    if (_handedOut != _entry->unpackedBytes) {
        return _anotherSize();
    }
    if (_checksum != _entry->checksum) {
        return _damaged("its checksum is wrong");
    }
    if (!_hasDescriptor) {
        return {};
    }
    const std::uint64_t end = _contentStart + _entry->packedBytes;
    const auto descriptor = _file.read(end, std::min<std::uint64_t>(zip::maxDescriptorSize, _entry->end - end));
    if (!descriptor) {
        return descriptor.error();
    }
    return zip::isDescriptor(*descriptor, _entry->checksum, {_entry->packedBytes, _entry->unpackedBytes})
               ? Result<void>()
               : _contradiction();
}

} // namespace appsync
