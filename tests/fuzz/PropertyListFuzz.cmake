if(VARDELL_SANITIZE)
  vardell_fuzz(property_list_fuzz
    SOURCES
      tests/fuzz/PropertyListFuzz.cpp
      "Common Sources/PropertyListReader.cpp"
      "Common Sources/PropertyListWriter.cpp"
      "Common Sources/XmlText.cpp"
    OPTIONS -timeout=10 "-dict=${CMAKE_CURRENT_LIST_DIR}/property-list.dict")
endif()
