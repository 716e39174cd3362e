package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.HashSet;
import java.util.Set;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** NativeListFiles, the version check and the entry points that do nothing. */
class DriveListingTest {
    @TempDir Path dir;

    static String[] sorted(String[] names) {
        String[] copy = names.clone();
        Arrays.sort(copy);
        return copy;
    }

    @Test
    void listsTheDirectoryBeforeTheLastTwoCharacters() throws IOException {
        Files.createFile(dir.resolve("b.txt"));
        Files.createDirectory(dir.resolve("sub"));
        Files.createSymbolicLink(dir.resolve("dangling"), dir.resolve("nowhere"));
        Files.createFile(dir.resolve(".hidden"));
        String[] expected = {".hidden", "b.txt", "dangling", "sub"};
        // The two characters are dropped unread, whatever they are.
        assertArrayEquals(expected, sorted(NativeLDM.NativeListFiles(dir + "/*")));
        assertArrayEquals(expected, sorted(NativeLDM.NativeListFiles(dir + "xy")));

        Path empty = Files.createDirectory(dir.resolve("sub/empty"));
        String[] none = NativeLDM.NativeListFiles(empty + "/*");
        assertNotNull(none);
        assertEquals(0, none.length);

        assertNull(NativeLDM.NativeListFiles(dir + "/missing/*"));
        assertNull(NativeLDM.NativeListFiles(dir + "/b.txt/*"));
        // Too short to hold the two characters; "/*" leaves the empty name, which opendir refuses.
        assertNull(NativeLDM.NativeListFiles(""));
        assertNull(NativeLDM.NativeListFiles("/"));
        assertNull(NativeLDM.NativeListFiles("/*"));
        // The directory's name is intact but the pattern cannot be converted.
        assertNull(NativeLDM.NativeListFiles(dir + "/\uD800"));
    }

    @Test
    void listsAHundredThousandEntriesWithinTheLocalReferenceBudget() throws IOException {
        final int count = 100_000;
        Path big = Files.createDirectory(dir.resolve("big"));
        for (int i = 0; i < count; i++) Files.createFile(big.resolve("n" + i));
        long start = System.nanoTime();
        String[] names = NativeLDM.NativeListFiles(big + "/*");
        long millis = (System.nanoTime() - start) / 1_000_000;
        assertEquals(count, names.length);
        Set<String> seen = new HashSet<>(Arrays.asList(names));
        assertEquals(count, seen.size());
        assertTrue(seen.contains("n0") && seen.contains("n" + (count - 1)));
        assertTrue(millis < 20_000, "listing took " + millis + " ms");
        // @TempDir's recursive clean-up would take longer than the rest of the class.
        try (var stream = Files.newDirectoryStream(big)) {
            for (Path p : stream) Files.delete(p);
        }
    }

    @Test
    void versionMustMatchExactly() {
        assertTrue(NativeLDM.NativeCheckVersion("2.0.0b"));
        for (String other : new String[] {"2.0.0B", " 2.0.0b", "2.0.0b ", "2.0.0", "2.0.0bb", "", "2.0.0b\0",
                "2.0.0b\uD800"}) {
            assertFalse(NativeLDM.NativeCheckVersion(other), "'" + other + "'");
        }
    }

    @Test
    void inertEntryPointsReturnZero() {
        assertEquals(0, NativeLDM.NativeWinOpen());
        assertEquals(0, NativeLDM.NativeWinDevice());
        assertEquals(0, NativeLDM.NativeWinRead());
        assertEquals(0, NativeLDM.NativeWinWrite());
        assertEquals(0, NativeLDM.SetErrorMode());
        NativeLDM.NativeWinClose();
        NativeLDM.NativeCheckpoint();
    }
}
