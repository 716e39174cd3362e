package kor.plox.ldm.tool;

import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;

/** The names of the numbers that travel on the smart card channel, in the server's numbering. */
public final class Names {
    private Names() {
    }

    private static Map<Integer, String> table(Object... pairs) {
        Map<Integer, String> m = new TreeMap<>();
        for (int i = 0; i < pairs.length; i += 2) {
            m.put((Integer) pairs[i], (String) pairs[i + 1]);
        }
        return m;
    }

    private static final Map<Integer, String> RESULTS = table(
            0, "SCARD_S_SUCCESS", 120, "ERROR_CALL_NOT_IMPLEMENTED",
            0x80100001, "SCARD_F_INTERNAL_ERROR", 0x80100002, "SCARD_E_CANCELLED",
            0x80100003, "SCARD_E_INVALID_HANDLE", 0x80100004, "SCARD_E_INVALID_PARAMETER",
            0x80100005, "SCARD_E_INVALID_TARGET", 0x80100006, "SCARD_E_NO_MEMORY",
            0x80100007, "SCARD_F_WAITED_TOO_LONG", 0x80100008, "SCARD_E_INSUFFICIENT_BUFFER",
            0x80100009, "SCARD_E_UNKNOWN_READER", 0x8010000A, "SCARD_E_TIMEOUT",
            0x8010000B, "SCARD_E_SHARING_VIOLATION", 0x8010000C, "SCARD_E_NO_SMARTCARD",
            0x8010000D, "SCARD_E_UNKNOWN_CARD", 0x8010000E, "SCARD_E_CANT_DISPOSE",
            0x8010000F, "SCARD_E_PROTO_MISMATCH", 0x80100010, "SCARD_E_NOT_READY",
            0x80100011, "SCARD_E_INVALID_VALUE", 0x80100012, "SCARD_E_SYSTEM_CANCELLED",
            0x80100013, "SCARD_F_COMM_ERROR", 0x80100014, "SCARD_F_UNKNOWN_ERROR",
            0x80100015, "SCARD_E_INVALID_ATR", 0x80100016, "SCARD_E_NOT_TRANSACTED",
            0x80100017, "SCARD_E_READER_UNAVAILABLE", 0x80100018, "SCARD_P_SHUTDOWN",
            0x80100019, "SCARD_E_PCI_TOO_SMALL", 0x8010001A, "SCARD_E_READER_UNSUPPORTED",
            0x8010001B, "SCARD_E_DUPLICATE_READER", 0x8010001C, "SCARD_E_CARD_UNSUPPORTED",
            0x8010001D, "SCARD_E_NO_SERVICE", 0x8010001E, "SCARD_E_SERVICE_STOPPED",
            // pcsc-lite gives this value the second name SCARD_E_UNSUPPORTED_FEATURE.
            0x8010001F, "SCARD_E_UNEXPECTED", 0x80100020, "SCARD_E_ICC_INSTALLATION",
            0x80100021, "SCARD_E_ICC_CREATEORDER", 0x80100022, "SCARD_E_UNSUPPORTED_FEATURE",
            0x80100023, "SCARD_E_DIR_NOT_FOUND", 0x80100024, "SCARD_E_FILE_NOT_FOUND",
            0x80100025, "SCARD_E_NO_DIR", 0x80100026, "SCARD_E_NO_FILE", 0x80100027, "SCARD_E_NO_ACCESS",
            0x80100028, "SCARD_E_WRITE_TOO_MANY", 0x80100029, "SCARD_E_BAD_SEEK",
            0x8010002A, "SCARD_E_INVALID_CHV", 0x8010002B, "SCARD_E_UNKNOWN_RES_MNG",
            0x8010002C, "SCARD_E_NO_SUCH_CERTIFICATE", 0x8010002D, "SCARD_E_CERTIFICATE_UNAVAILABLE",
            0x8010002E, "SCARD_E_NO_READERS_AVAILABLE", 0x8010002F, "SCARD_E_COMM_DATA_LOST",
            0x80100030, "SCARD_E_NO_KEY_CONTAINER", 0x80100031, "SCARD_E_SERVER_TOO_BUSY",
            0x80100065, "SCARD_W_UNSUPPORTED_CARD", 0x80100066, "SCARD_W_UNRESPONSIVE_CARD",
            0x80100067, "SCARD_W_UNPOWERED_CARD", 0x80100068, "SCARD_W_RESET_CARD",
            0x80100069, "SCARD_W_REMOVED_CARD", 0x8010006A, "SCARD_W_SECURITY_VIOLATION",
            0x8010006B, "SCARD_W_WRONG_CHV", 0x8010006C, "SCARD_W_CHV_BLOCKED", 0x8010006D, "SCARD_W_EOF",
            0x8010006E, "SCARD_W_CANCELLED_BY_USER", 0x8010006F, "SCARD_W_CARD_NOT_AUTHENTICATED");

    private static final Map<Integer, String> READER_STATES = table(
            0x1, "SCARD_STATE_IGNORE", 0x2, "SCARD_STATE_CHANGED", 0x4, "SCARD_STATE_UNKNOWN",
            0x8, "SCARD_STATE_UNAVAILABLE", 0x10, "SCARD_STATE_EMPTY", 0x20, "SCARD_STATE_PRESENT",
            0x40, "SCARD_STATE_ATRMATCH", 0x80, "SCARD_STATE_EXCLUSIVE", 0x100, "SCARD_STATE_INUSE",
            0x200, "SCARD_STATE_MUTE", 0x400, "SCARD_STATE_UNPOWERED");

    private static final Map<Integer, String> PROTOCOLS = table(
            0x1, "SCARD_PROTOCOL_T0", 0x2, "SCARD_PROTOCOL_T1", 0x10000, "SCARD_PROTOCOL_RAW",
            0x80000000, "SCARD_PROTOCOL_DEFAULT");

    private static final Map<Integer, String> CARD_STATES = table(
            0, "SCARD_UNKNOWN", 1, "SCARD_ABSENT", 2, "SCARD_PRESENT", 3, "SCARD_SWALLOWED",
            4, "SCARD_POWERED", 5, "SCARD_NEGOTIABLE", 6, "SCARD_SPECIFIC");

    private static final Map<Integer, String> SHARE_MODES = table(
            1, "SCARD_SHARE_EXCLUSIVE", 2, "SCARD_SHARE_SHARED", 3, "SCARD_SHARE_DIRECT");

    private static final Map<Integer, String> DISPOSITIONS = table(
            0, "SCARD_LEAVE_CARD", 1, "SCARD_RESET_CARD", 2, "SCARD_UNPOWER_CARD", 3, "SCARD_EJECT_CARD");

    private static final Map<Integer, String> SCOPES = table(
            0, "SCARD_SCOPE_USER", 1, "SCARD_SCOPE_TERMINAL", 2, "SCARD_SCOPE_SYSTEM");

    private static final Map<Integer, String> ATTRIBUTES = table(
            0x10100, "SCARD_ATTR_VENDOR_NAME", 0x10101, "SCARD_ATTR_VENDOR_IFD_TYPE",
            0x10102, "SCARD_ATTR_VENDOR_IFD_VERSION", 0x10103, "SCARD_ATTR_VENDOR_IFD_SERIAL_NO",
            0x20110, "SCARD_ATTR_CHANNEL_ID", 0x30120, "SCARD_ATTR_ASYNC_PROTOCOL_TYPES",
            0x30121, "SCARD_ATTR_DEFAULT_CLK", 0x30122, "SCARD_ATTR_MAX_CLK",
            0x30123, "SCARD_ATTR_DEFAULT_DATA_RATE", 0x30124, "SCARD_ATTR_MAX_DATA_RATE",
            0x30125, "SCARD_ATTR_MAX_IFSD", 0x30126, "SCARD_ATTR_SYNC_PROTOCOL_TYPES",
            0x40131, "SCARD_ATTR_POWER_MGMT_SUPPORT", 0x50140, "SCARD_ATTR_USER_TO_CARD_AUTH_DEVICE",
            0x50142, "SCARD_ATTR_USER_AUTH_INPUT_DEVICE", 0x60150, "SCARD_ATTR_CHARACTERISTICS",
            0x80201, "SCARD_ATTR_CURRENT_PROTOCOL_TYPE", 0x80202, "SCARD_ATTR_CURRENT_CLK",
            0x80203, "SCARD_ATTR_CURRENT_F", 0x80204, "SCARD_ATTR_CURRENT_D", 0x80205, "SCARD_ATTR_CURRENT_N",
            0x80206, "SCARD_ATTR_CURRENT_W", 0x80207, "SCARD_ATTR_CURRENT_IFSC",
            0x80208, "SCARD_ATTR_CURRENT_IFSD", 0x80209, "SCARD_ATTR_CURRENT_BWT",
            0x8020A, "SCARD_ATTR_CURRENT_CWT", 0x8020B, "SCARD_ATTR_CURRENT_EBC_ENCODING",
            0x8020C, "SCARD_ATTR_EXTENDED_BWT", 0x90300, "SCARD_ATTR_ICC_PRESENCE",
            0x90301, "SCARD_ATTR_ICC_INTERFACE_STATUS", 0x90302, "SCARD_ATTR_CURRENT_IO_STATE",
            0x90303, "SCARD_ATTR_ATR_STRING", 0x90304, "SCARD_ATTR_ICC_TYPE_PER_ATR",
            0x7A000, "SCARD_ATTR_ESC_RESET", 0x7A003, "SCARD_ATTR_ESC_CANCEL",
            0x7A005, "SCARD_ATTR_ESC_AUTHREQUEST", 0x7A007, "SCARD_ATTR_MAXINPUT",
            0x7FFF0001, "SCARD_ATTR_DEVICE_UNIT", 0x7FFF0002, "SCARD_ATTR_DEVICE_IN_USE",
            0x7FFF0003, "SCARD_ATTR_DEVICE_FRIENDLY_NAME_A", 0x7FFF0004, "SCARD_ATTR_DEVICE_SYSTEM_NAME_A",
            0x7FFF0005, "SCARD_ATTR_DEVICE_FRIENDLY_NAME_W", 0x7FFF0006, "SCARD_ATTR_DEVICE_SYSTEM_NAME_W",
            0x7FFF0007, "SCARD_ATTR_SUPRESS_T1_IFS_REQUEST");

    // Reader control functions of the PC/SC part 10 feature mechanism (SCARD_CTL_CODE numbers).
    private static final Map<Integer, String> CONTROL_FUNCTIONS = table(
            1, "IOCTL_SMARTCARD_VENDOR_IFD_EXCHANGE", 3400, "CM_IOCTL_GET_FEATURE_REQUEST");

    private static String exact(Map<Integer, String> m, int v) {
        String name = m.get(v);
        return name != null ? name : String.format("unknown 0x%08X", v);
    }

    /** A return code: its name and value, for instance {@code SCARD_E_TIMEOUT (0x8010000A)}. */
    public static String result(int v) {
        String also = v == 0x8010001F ? ", pcsc-lite's SCARD_E_UNSUPPORTED_FEATURE" : "";
        return exact(RESULTS, v).replace("unknown ", "unknown code ") + String.format(" (0x%08X%s)", v, also);
    }

    /** The bare name of a return code, or its hexadecimal value when it has none. */
    public static String resultName(int v) {
        String name = RESULTS.get(v);
        return name != null ? name : String.format("0x%08X", v);
    }

    /** The value of a return-code name, or null when there is no such name. */
    public static Integer resultValue(String name) {
        for (Map.Entry<Integer, String> e : RESULTS.entrySet()) {
            if (e.getValue().equals(name)) return e.getKey();
        }
        return null;
    }

    static String flags(Map<Integer, String> m, int v, String zero) {
        if (v == 0) return zero;
        List<String> out = new ArrayList<>();
        int rest = v;
        for (Map.Entry<Integer, String> e : m.entrySet()) {
            if ((v & e.getKey()) == e.getKey() && e.getKey() != 0) {
                out.add(e.getValue());
                rest &= ~e.getKey();
            }
        }
        if (rest != 0) out.add(String.format("0x%X", rest));
        return String.join("|", out);
    }

    /** Reader state flags; the high 16 bits count the reader's events. */
    public static String readerState(int v) {
        String f = flags(READER_STATES, v & 0xFFFF, "SCARD_STATE_UNAWARE");
        return (v >>> 16) == 0 ? f : f + ", event count " + (v >>> 16);
    }

    public static String protocols(int v) {
        return flags(PROTOCOLS, v, "SCARD_PROTOCOL_UNDEFINED");
    }

    public static String cardState(int v) {
        return exact(CARD_STATES, v);
    }

    public static String shareMode(int v) {
        return exact(SHARE_MODES, v);
    }

    public static String disposition(int v) {
        return exact(DISPOSITIONS, v);
    }

    public static String scope(int v) {
        return exact(SCOPES, v);
    }

    public static String attribute(int v) {
        return exact(ATTRIBUTES, v);
    }

    /**
     * A reader control code, in either form: the server's CTL_CODE(0x31, n, 0, 0), which the
     * library passes on unchanged, or PC/SC's 0x42000000 + n.
     */
    public static String controlCode(int v) {
        String form;
        int n;
        if ((v & 0xFFFFC003) == 0x00310000) {
            form = "server form";
            n = (v >>> 2) & 0xFFF;
        } else if (v - 0x42000000 >= 0 && v - 0x42000000 < 0x10000) {
            form = "PC/SC form";
            n = v - 0x42000000;
        } else {
            return "unknown form";
        }
        String name = CONTROL_FUNCTIONS.get(n);
        return "SCARD_CTL_CODE(" + n + ")" + (name != null ? " " + name : "") + ", " + form;
    }

    private static final Map<Integer, String> INSTRUCTIONS = table(
            0x0E, "ERASE BINARY", 0x20, "VERIFY", 0x22, "MANAGE SECURITY ENVIRONMENT",
            0x24, "CHANGE REFERENCE DATA", 0x2A, "PERFORM SECURITY OPERATION", 0x70, "MANAGE CHANNEL",
            0x82, "EXTERNAL AUTHENTICATE", 0x84, "GET CHALLENGE", 0x87, "GENERAL AUTHENTICATE",
            0x88, "INTERNAL AUTHENTICATE", 0xA4, "SELECT", 0xB0, "READ BINARY", 0xB2, "READ RECORD",
            0xC0, "GET RESPONSE", 0xCA, "GET DATA", 0xCB, "GET DATA", 0xD6, "UPDATE BINARY",
            0xDA, "PUT DATA", 0xDC, "UPDATE RECORD", 0xE2, "APPEND RECORD");

    /** The instruction of a command APDU, named when it is a common interindustry one. */
    public static String instruction(int ins) {
        String name = INSTRUCTIONS.get(ins & 0xFF);
        return name != null ? name : String.format("INS %02X", ins & 0xFF);
    }

    private static final Map<Integer, String> STATUS_WORDS = table(
            0x9000, "success", 0x6281, "part of returned data may be corrupted", 0x6282, "end of file reached",
            0x6700, "wrong length", 0x6882, "secure messaging not supported",
            0x6982, "security status not satisfied", 0x6983, "authentication method blocked",
            0x6985, "conditions of use not satisfied", 0x6986, "command not allowed",
            0x6A80, "incorrect data", 0x6A81, "function not supported", 0x6A82, "file or application not found",
            0x6A83, "record not found", 0x6A86, "incorrect P1-P2", 0x6A88, "referenced data not found",
            0x6B00, "wrong P1-P2", 0x6D00, "instruction not supported", 0x6E00, "class not supported",
            0x6F00, "no precise diagnosis");

    /** The meaning of a status word SW1 SW2. */
    public static String statusWord(int sw) {
        if ((sw & 0xFF00) == 0x6100) return (sw & 0xFF) + " more bytes available";
        if ((sw & 0xFF00) == 0x6C00) return "wrong Le, exact length " + (sw & 0xFF);
        if ((sw & 0xFFF0) == 0x63C0) return "verification failed, " + (sw & 0xF) + " tries left";
        String name = STATUS_WORDS.get(sw);
        return name != null ? name : "status";
    }
}
