SUMMARY = "Several byte-stream ports to a USB host over one gadget device node"
DESCRIPTION = "A C++17 library on Qt 5 Core that does the framing, the flow control, the detection of a \
lost link and its recovery, with a simulated device node and a sample connection manager."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=d51455658524732e03c156f3dd3be8ea"

# The tarball that Scripts/release has made in this tree. For one on a server set USBHAL_TARBALL to
# "https://...;name=tarball" and SRC_URI[tarball.sha256sum] to the sum that Scripts/release prints.
FILESEXTRAPATHS:prepend := "${THISDIR}/files:${THISDIR}/../../../../build/dist:"
USBHAL_TARBALL ?= "file://${BP}.tar.xz"
SRC_URI = "${USBHAL_TARBALL} file://run-ptest"

# A layer without its tarball must not stop the parsing of all others.
python () {
    tarball = d.getVar("USBHAL_TARBALL")
    if tarball.startswith("file://") and not bb.utils.which(d.getVar("FILESPATH"), tarball[len("file://"):]):
        raise bb.parse.SkipRecipe("there is no %s: run Scripts/release, or set USBHAL_TARBALL" % tarball)
}

inherit cmake_qt5 ptest systemd useradd

# Some of the simulated node's tests are built with AddressSanitizer.
DEPENDS = "cli11 libpcap libusb1 nlohmann-json ${@'gcc-sanitizers' if d.getVar('PTEST_ENABLED') == '1' else ''}"

EXTRA_OECMAKE = " \
    -DUSBHAL_WARNINGS_AS_ERRORS=OFF \
    -DUSBHAL_BUILD_OBSERVE=OFF \
    -DUSBHAL_BUILD_PYTHON=OFF \
    -DUSBHAL_BUILD_TESTS=${@'ON' if d.getVar('PTEST_ENABLED') == '1' else 'OFF'} \
    -DUSBHAL_UDEV_RULES_DIR=${nonarch_base_libdir}/udev/rules.d \
    -DUSBHAL_SYSTEMD_UNIT_DIR=${systemd_system_unitdir} \
    -DUSBHAL_SYSTEMD_USER_UNIT_DIR=${systemd_user_unitdir} \
    -DUSBHAL_SYSUSERS_DIR=${nonarch_libdir}/sysusers.d \
"

# A killed communication thread unwinds its stack, so nobody may take the tables for that away.
CXXFLAGS:append = " -fexceptions -funwind-tables"

do_install_ptest() {
    ${S}/Tests/install-tests ${B} ${D}${PTEST_PATH}
}

PACKAGES =+ "${PN}-host ${PN}-tool ${PN}-sim ${PN}-manager"

SUMMARY:${PN}-host = "Library for programs on the USB host of a device with UsbHal"
FILES:${PN}-host = "${libdir}/libusbhal-host.so.*"

SUMMARY:${PN}-tool = "Tool for the USB host of a device with UsbHal"
FILES:${PN}-tool = " \
    ${bindir}/usbhal \
    ${datadir}/bash-completion \
    ${datadir}/zsh \
    ${nonarch_base_libdir}/udev/rules.d/70-usbhal-host.rules \
    ${systemd_user_unitdir}/usbhal-forward@.service \
"

SUMMARY:${PN}-sim = "Simulated device node for programs that use UsbHal"
FILES:${PN}-sim = "${bindir}/simnode ${libdir}/simnode"

SUMMARY:${PN}-manager = "Sample connection manager with its udev rule and systemd unit"
FILES:${PN}-manager = " \
    ${bindir}/usbhal-sample-manager \
    ${nonarch_base_libdir}/udev/rules.d/70-usbhal.rules \
    ${systemd_system_unitdir}/usbhal-sample-manager.service \
    ${nonarch_libdir}/sysusers.d/usbhal.conf \
"

# The udev rule starts the unit, which has nothing to enable.
SYSTEMD_PACKAGES = "${PN}-manager"
SYSTEMD_SERVICE:${PN}-manager = "usbhal-sample-manager.service"
SYSTEMD_AUTO_ENABLE:${PN}-manager = "disable"

# As System/usbhal.conf says, for an image whose /etc is read-only.
USERADD_PACKAGES = "${PN}-manager"
USERADD_PARAM:${PN}-manager = "--system --user-group --no-create-home --home-dir / --shell /sbin/nologin usbhal"

RDEPENDS:${PN}-ptest += "${PN}-sim"
