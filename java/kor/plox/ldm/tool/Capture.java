package kor.plox.ldm.tool;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/**
 * A capture of smart card requests: one request per line, four tab-separated columns (an id, the
 * I/O control code, the request length and the request bytes in hexadecimal); lines starting with
 * {@code #} and empty lines are comments.
 */
public final class Capture {
    private Capture() {
    }

    /** One captured request: what the library receives as {@code ioctl} and {@code request}. */
    public record Request(String id, int ioctl, byte[] bytes) {
    }

    /** Reads a capture; a malformed line fails with its number and what is wrong with it. */
    public static List<Request> read(Path file) throws IOException {
        List<Request> out = new ArrayList<>();
        List<String> lines = Files.readAllLines(file, StandardCharsets.UTF_8);
        for (int i = 0; i < lines.size(); i++) {
            String line = lines.get(i).strip();
            if (line.isEmpty() || line.startsWith("#")) continue;
            String[] col = line.split("\t");
            String where = file.getFileName() + " line " + (i + 1) + ": ";
            if (col.length != 4) throw new IllegalArgumentException(where + "expected 4 tab-separated columns, found " + col.length);
            try {
                byte[] bytes = unhex(col[3]);
                if (bytes.length != Integer.parseInt(col[2])) {
                    throw new IllegalArgumentException("length " + col[2] + " but " + bytes.length + " bytes");
                }
                out.add(new Request(col[0], Decoder.parseCode(col[1]) | 0x00090000, bytes));
            } catch (IllegalArgumentException e) {
                throw new IllegalArgumentException(where + e.getMessage());
            }
        }
        return out;
    }

    /** Hexadecimal text to bytes; spaces, line ends and a leading 0x are allowed. */
    public static byte[] unhex(String text) {
        String h = text.replaceAll("\\s+", "");
        if (h.startsWith("0x") || h.startsWith("0X")) h = h.substring(2);
        if (h.length() % 2 != 0) throw new IllegalArgumentException("odd number of hex digits");
        if (!h.matches("[0-9A-Fa-f]*")) throw new IllegalArgumentException("not hexadecimal: " + abbreviate(h));
        return Rdpesc.unhex(h);
    }

    private static String abbreviate(String s) {
        return s.length() > 20 ? s.substring(0, 20) + "..." : s;
    }
}
