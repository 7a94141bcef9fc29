export type ThemeChoice = 'auto' | 'light' | 'dark';

const kStored = 'appdatachannel-theme';

// Light or dark: as the system has it, or as chosen here.
export class Theme {
  choice: ThemeChoice = 'auto';
  changed: () => void = () => {};
  readonly #system = matchMedia('(prefers-color-scheme: dark)');

  constructor() {
    try {
      const stored = localStorage.getItem(kStored);
      if (stored === 'light' || stored === 'dark') this.choice = stored;
    } catch {
      // no storage: the system's
    }
    this.#system.addEventListener('change', () => this.#apply());
    this.#apply();
  }

  get isDark(): boolean {
    return this.choice === 'auto' ? this.#system.matches : this.choice === 'dark';
  }

  choose(choice: ThemeChoice): void {
    this.choice = choice;
    try {
      if (choice === 'auto') localStorage.removeItem(kStored);
      else localStorage.setItem(kStored, choice);
    } catch {
      // it holds until the page is closed
    }
    this.#apply();
  }

  #apply(): void {
    document.documentElement.dataset['theme'] = this.isDark ? 'dark' : 'light';
    this.changed();
  }
}
