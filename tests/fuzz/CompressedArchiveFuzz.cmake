if(VARDELL_SANITIZE)
  vardell_fuzz(compressed_archive_fuzz
    SOURCES
      tests/fuzz/CompressedArchiveFuzz.cpp
      "Common Sources/ArchiveDates.cpp"
      "Common Sources/BinaryPropertyListReader.cpp"
      "Common Sources/BinaryPropertyListWriter.cpp"
      "Common Sources/CompressedArchive.cpp"
      "Common Sources/KeyedArchiveReader.cpp"
      "Common Sources/KeyedArchiveWriter.cpp"
      "Common Sources/ObjectArchive.cpp"
      "Common Sources/PropertyListReader.cpp"
      "Common Sources/PropertyListWriter.cpp"
      "Common Sources/XmlText.cpp"
    LIBS ZLIB::ZLIB OpenSSL::Crypto
    OPTIONS -timeout=10 "-dict=${CMAKE_CURRENT_LIST_DIR}/compressed-archive.dict")
endif()
