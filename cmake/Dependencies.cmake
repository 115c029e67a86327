# Every library from outside, found once. Debian's package of each stands in packaging/apt-packages.txt.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(spdlog REQUIRED)
find_package(fmt REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(Boost 1.81 REQUIRED COMPONENTS filesystem program_options thread)
pkg_check_modules(giomm REQUIRED IMPORTED_TARGET giomm-2.68)
pkg_check_modules(sqlite REQUIRED IMPORTED_TARGET sqlite3)

# Warnings are errors here, so headers that are not ours must not raise any.
foreach(target PkgConfig::giomm PkgConfig::sqlite)
    get_target_property(directories ${target} INTERFACE_INCLUDE_DIRECTORIES)
    if(directories)
        set_target_properties(${target} PROPERTIES INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${directories}")
    endif()
endforeach()
