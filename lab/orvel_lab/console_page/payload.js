// From what is typed to the bytes of a message.

/** The bytes of chunk number `number`: of text in UTF-8, or of pairs of hexadecimal digits. */
export function bytesOf(form, text, number) {
  if (form === "text") return new TextEncoder().encode(text);
  const digits = text.replace(/\s+/g, "");
  if (!/^([0-9a-f]{2})*$/i.test(digits)) throw new Error(`chunk ${number} is not made of pairs of hexadecimal digits`);
  return Uint8Array.from(digits.match(/../g) ?? [], (pair) => parseInt(pair, 16));
}

/** Payload and chunk sizes, as the command has them. */
export function joined(chunks) {
  const text = chunks.map((bytes) => Array.from(bytes, (byte) => String.fromCharCode(byte)).join("")).join("");
  return { payload: btoa(text), chunks: chunks.map((bytes) => bytes.length) };
}
