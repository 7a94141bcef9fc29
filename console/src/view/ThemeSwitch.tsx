import { Theme, ThemeChoice } from '../page/Theme';

export function ThemeSwitch({ theme }: { readonly theme: Theme }) {
  return (
    <label class="theme">
      <span class="narrow-hidden">Theme</span>
      <select
        aria-label="Theme"
        value={theme.choice}
        onChange={(event) => theme.choose(event.currentTarget.value as ThemeChoice)}
      >
        <option value="auto">System</option>
        <option value="light">Light</option>
        <option value="dark">Dark</option>
      </select>
    </label>
  );
}
