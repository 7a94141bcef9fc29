export const kMaxProperties = 1_000; // of one television
export const kMaxPropertiesInAll = 100_000;
export const kPointsPerProperty = 600;
export const kMinPointsPerProperty = 20;
export const kMaxPoints = 600_000; // of all properties together, about
export const kMaxNameLength = 256; // characters of a television's or a property's name; longer ones are ignored

// What long texts may take together, in characters: 64 MiB of a page that has Latin letters.
export const kWholeValuesBytes = 48 * 1024 * 1024; // values that are longer than kCutLength
export const kSignUpCharacters = 8 * 1024 * 1024; // sign-up information
export const kRequestCharacters = 8 * 1024 * 1024; // the requests of this page with what came of them

// What the televisions of a fleet share, so that memory stays bounded however many they are.
export class Budget {
  #properties = 0;
  #series = 0;
  #points = kPointsPerProperty;
  #signUpCharacters = 0;

  // How many points a property may keep; it shrinks.
  get points(): number {
    return this.#points;
  }

  // Whether there may be one more property.
  takeProperty(): boolean {
    if (this.#properties >= kMaxPropertiesInAll) return false;
    this.#properties++;
    return true;
  }

  returnProperty(): void {
    this.#properties--;
  }

  // Whether sign-up information of so many characters may be kept in place of what was there.
  replaceSignUp(before: number, after: number): boolean {
    this.#signUpCharacters -= before;
    if (this.#signUpCharacters + after > kSignUpCharacters) return false;
    this.#signUpCharacters += after;
    return true;
  }

  // One more property has points. Halved, so that rings change seldom.
  addSeries(): void {
    this.#series++;
    while (this.#points > kMinPointsPerProperty && this.#points * this.#series > kMaxPoints) {
      this.#points = Math.max(kMinPointsPerProperty, Math.floor(this.#points / 2));
    }
  }

  removeSeries(): void {
    this.#series--;
  }
}
